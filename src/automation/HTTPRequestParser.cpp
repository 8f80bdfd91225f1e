// SPDX-License-Identifier: Apache-2.0
#include "automation/HTTPRequestParser.h"

#include <charconv>

#include "base/Text.h"

namespace dorvane {
namespace {

using Parsed = HTTPRequestParser::ParseResult;
using Request = HTTPRequestParser::Request;

constexpr std::string_view endOfHead = "\r\n\r\n";
constexpr std::string_view endOfLine = "\r\n";

struct MalformedHead {
    const char* reason;
};

/// Cuts the first line off `text`.
std::string_view takeLine(std::string_view& text) {
    const auto end = text.find(endOfLine);
    const auto line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + endOfLine.size());
    return line;
}

std::string_view takeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const auto word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size());
    return word;
}

std::string_view trimmedOfBlanksAndTabs(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

void readRequestLine(std::string_view line, Request& request) {
    const auto method = takeWord(line), target = takeWord(line), version = takeWord(line);
    const bool hasMore = !takeWord(line).empty();
    if (version.empty() || hasMore || !version.starts_with("HTTP/1."))
        throw MalformedHead{"malformed request line"};
    request.method = method;
    request.path = target.substr(0, target.find('?'));
}

void readHeaderLine(std::string_view line, Request& request) {
    if (line.empty()) return;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) throw MalformedHead{"malformed header line"};
    request.headers.insert_or_assign(asciiLowercased(line.substr(0, colon)),
                                     std::string(trimmedOfBlanksAndTabs(line.substr(colon + 1))));
}

std::size_t bodyLength(const HTTPRequestParser::Headers& headers) {
    if (const auto coding = headers.find("transfer-encoding");
        coding != headers.end() && asciiLowercased(coding->second).find("chunked") != std::string::npos)
        throw MalformedHead{"chunked encoding not supported"};
    const auto header = headers.find("content-length");
    if (header == headers.end()) return 0;
    const auto& text = header->second;
    std::int64_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end != text.data() + text.size() || length < 0)
        throw MalformedHead{"malformed Content-Length"};
    if (length > HTTPRequestParser::maximumBodyBytes) throw MalformedHead{"body too large"};
    return static_cast<std::size_t>(length);
}

Request readRequest(std::string_view text) {
    if (!isValidUTF8(text)) throw MalformedHead{"header is not valid UTF-8"};
    Request request;
    readRequestLine(takeLine(text), request);
    while (!text.empty()) readHeaderLine(takeLine(text), request);
    return request;
}

}  // namespace

Parsed::Kind HTTPRequestParser::append(ByteView bytes) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    if (!parsedHead_)
        if (auto result = readHead()) return std::move(*result);
    if (buffer_.size() < parsedHead_->bodyLength) return Parsed::NeedMoreData{};
    buffer_.resize(parsedHead_->bodyLength);
    Parsed::Complete complete{std::move(parsedHead_->request)};
    complete.request.body = std::move(buffer_);
    return complete;
}

std::optional<Parsed::Kind> HTTPRequestParser::readHead() {
    const auto text = asText(buffer_);
    const auto marker = text.find(endOfHead, searched_);
    if (marker == std::string_view::npos) {
        if (buffer_.size() > maximumHeadBytes) return Parsed::Invalid{"header too large"};
        searched_ = buffer_.size() - std::min(buffer_.size(), endOfHead.size() - 1);
        return Parsed::NeedMoreData{};
    }
    const auto headSize = marker + endOfHead.size();
    if (headSize > maximumHeadBytes) return Parsed::Invalid{"header too large"};
    try {
        Head head{readRequest(text.substr(0, marker))};
        head.bodyLength = bodyLength(head.request.headers);
        parsedHead_ = std::move(head);
    } catch (const MalformedHead& malformed) {
        return Parsed::Invalid{malformed.reason};
    }
    if (authorizeHead_ && !authorizeHead_(parsedHead_->request.path, parsedHead_->request.headers)) {
        buffer_.clear();
        return Parsed::Unauthorized{};
    }
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(headSize));
    return std::nullopt;
}

}  // namespace dorvane
