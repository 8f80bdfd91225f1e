// SPDX-License-Identifier: Apache-2.0
#include "automation/JSONRPCMessage.h"

namespace dorvane {
namespace {

/// Finds the top-level number `id` as it is spelled, for one that no machine integer can hold.
class NumberSpelling : public nlohmann::json_sax<JSON> {
  public:
    std::string found;

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t& spelling) override {
        if (depth_ == 1 && isAtID_) found = spelling;
        return true;
    }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return enter(); }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t) override { return enter(); }
    bool end_array() override { return leave(); }
    bool key(string_t& name) override {
        if (depth_ == 1) isAtID_ = name == "id";
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    bool enter() {
        ++depth_;
        return true;
    }
    bool leave() {
        --depth_;
        return true;
    }

    int depth_ = 0;
    bool isAtID_ = false;
};

std::string idText(const JSON& id, std::string_view body) {
    if (!id.is_number_float()) return compactJSON(id);
    NumberSpelling spelling;
    JSON::sax_parse(body, &spelling);
    return spelling.found.empty() ? compactJSON(id) : spelling.found;
}

}  // namespace

JSONRPCMessage::Kind JSONRPCMessage::parse(std::string_view body) {
    JSON message;
    try {
        message = parseJSON(body);
    } catch (const JSONError&) {
        return NotJSON{};
    }
    if (!message.is_object()) return NotAnObject{};
    const auto id = message.find("id");
    if (id == message.end() || id->is_null()) return Notification{};
    auto text = idText(*id, body);
    const auto method = message.find("method");
    if (method == message.end() || !method->is_string()) return WithoutMethod{std::move(text)};
    Call call{std::move(text), method->get<std::string>(), JSON::object()};
    if (const auto params = message.find("params"); params != message.end() && params->is_object())
        call.params = std::move(*params);
    return call;
}

std::string JSONRPCMessage::resultReply(std::string_view idText, std::string_view resultText) {
    std::string reply;
    reply.reserve(idText.size() + resultText.size() + 40);
    reply.append("{\"id\":")
        .append(idText)
        .append(",\"jsonrpc\":\"2.0\",\"result\":")
        .append(resultText)
        .append("}");
    return reply;
}

std::string JSONRPCMessage::errorReply(std::string_view idText, int code, const std::string& message) {
    JSON error;
    error["code"] = code;
    error["message"] = message;
    return "{\"error\":" + compactJSON(error) + ",\"id\":" + std::string(idText) + ",\"jsonrpc\":\"2.0\"}";
}

}  // namespace dorvane
