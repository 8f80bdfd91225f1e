// SPDX-License-Identifier: Apache-2.0
// Any bytes as a request: read in one piece and in small ones, with the same outcome, within the limits.
#include "automation/HTTPRequestParser.h"

namespace {

using namespace dorvane;
using Result = HTTPRequestParser::ParseResult;

Result::Kind parse(ByteView bytes, std::size_t piece) {
    HTTPRequestParser parser([](const std::string& path, const auto&) { return path != "/refused"; });
    Result::Kind result = Result::NeedMoreData{};
    for (std::size_t at = 0; at < bytes.size() && std::holds_alternative<Result::NeedMoreData>(result);
         at += piece)
        result = parser.append(bytes.subspan(at, std::min(piece, bytes.size() - at)));
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto whole = parse({data, size}, size + 1), pieces = parse({data, size}, 3);
    if (whole.index() != pieces.index()) __builtin_trap();
    const auto* complete = std::get_if<Result::Complete>(&whole);
    if (complete == nullptr) return 0;
    const auto& request = complete->request;
    const auto& again = std::get<Result::Complete>(pieces).request;
    if (request.method != again.method || request.path != again.path || request.headers != again.headers ||
        request.body != again.body)
        __builtin_trap();
    if (request.method.empty() || request.path == "/refused" || request.body.size() > size) __builtin_trap();
    return 0;
}
