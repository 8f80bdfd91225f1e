// SPDX-License-Identifier: Apache-2.0
#include "app/ControlProtocol.h"

namespace dorvane {
namespace {

std::string line(JSON message) {
    message["jsonrpc"] = "2.0";
    return compactJSON(message) + "\n";
}

}  // namespace

ControlRequest parseControlRequest(std::string_view text) {
    JSON message;
    try {
        message = parseJSON(text);
    } catch (const JSONError& error) {
        throw ControlError(ControlErrorCode::parseError, error.what());
    }
    const auto method = message.is_object() ? message.find("method") : message.end();
    if (!message.is_object() || method == message.end() || !method->is_string() || !message.contains("id"))
        throw ControlError(ControlErrorCode::invalidRequest, "A request needs an \"id\" and a \"method\".");
    ControlRequest request{message["id"], method->get<std::string>()};
    if (const auto params = message.find("params"); params != message.end()) request.params = *params;
    if (!request.params.is_object())
        throw ControlError(ControlErrorCode::invalidRequest, "\"params\" must be an object.");
    return request;
}

std::string controlRequestLine(const ControlRequest& request) {
    return line({{"id", request.id}, {"method", request.method}, {"params", request.params}});
}

std::string controlResultLine(const JSON& id, const JSON& result) {
    return line({{"id", id}, {"result", result}});
}

std::string controlErrorLine(const JSON& id, ControlErrorCode code, const std::string& message) {
    return line({{"id", id}, {"error", {{"code", static_cast<int>(code)}, {"message", message}}}});
}

std::string controlProgressLine(const ControlProgress& progress) {
    JSON params{{"message", progress.message}};
    putOptional(params, "fraction", progress.fraction);
    return line({{"method", "progress"}, {"params", std::move(params)}});
}

std::vector<std::string> ControlLineBuffer::append(std::string_view bytes) {
    rest_ += bytes;
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (auto end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n', start)) {
        if (end > start) lines.push_back(rest_.substr(start, end - start));
        start = end + 1;
    }
    rest_.erase(0, start);
    if (rest_.size() > maximumControlLineBytes)
        throw ControlError(ControlErrorCode::invalidRequest, "The line is too long.");
    return lines;
}

}  // namespace dorvane
