// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "automation/HTTPRequestParser.h"

namespace dorvane::test {
namespace {

using Parsed = HTTPRequestParser::ParseResult;

/// "complete", "invalid: <reason>", "more" or "unauthorized".
std::string described(const Parsed::Kind& result) {
    if (const auto* invalid = std::get_if<Parsed::Invalid>(&result)) return "invalid: " + invalid->reason;
    if (std::holds_alternative<Parsed::NeedMoreData>(result)) return "more";
    return std::holds_alternative<Parsed::Unauthorized>(result) ? "unauthorized" : "complete";
}

/// A head of exactly `size` bytes, its final empty line included.
std::string headOfSize(std::size_t size) {
    const std::string start = "POST /mcp HTTP/1.1\r\nx: ", end = "\r\n\r\n";
    return start + std::string(size - start.size() - end.size(), 'a') + end;
}

TEST(HTTPRequestParser, readsARequestWhateverTheSizeOfThePieces) {
    const std::string text =
        "POST   /mcp/abc?x=1?y  HTTP/1.0\r\nHost: a\r\nX-Twice: 1\r\nCONTENT-LENGTH:\t 5 \r\nx-twice:\t2:3 "
        "\r\n\r\nhello";
    for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, text.size()}) {
        HTTPRequestParser parser;
        Parsed::Kind result = Parsed::NeedMoreData{};
        for (std::size_t at = 0; at < text.size(); at += piece) {
            ASSERT_EQ(described(result), "more") << "at " << at << " in pieces of " << piece;
            result = parser.append(asBytes(std::string_view(text).substr(at, piece)));
        }
        ASSERT_EQ(described(result), "complete") << "in pieces of " << piece;
        const auto& read = std::get<Parsed::Complete>(result).request;
        EXPECT_EQ(read.method, "POST");
        EXPECT_EQ(read.path, "/mcp/abc");
        EXPECT_EQ(read.headers.at("x-twice"), "2:3");
        EXPECT_EQ(read.headers.at("content-length"), "5");
        EXPECT_EQ(asText(read.body), "hello");
    }
}

TEST(HTTPRequestParser, judgesHeads) {
    const std::pair<std::string, const char*> cases[] = {
        {"POST /mcp HTTP/1.1\r\n\r\n", "complete"},
        {"POST /mcp HTTP/2\r\n\r\n", "invalid: malformed request line"},
        {"POST /mcp\r\n\r\n", "invalid: malformed request line"},
        {"POST /mcp HTTP/1.1 x\r\n\r\n", "invalid: malformed request line"},
        {"\r\n\r\n", "invalid: malformed request line"},
        {"POST /mcp HTTP/1.1\r\nno colon\r\n\r\n", "invalid: malformed header line"},
        {"POST /mcp HTTP/1.1\r\na: \xff\r\n\r\n", "invalid: header is not valid UTF-8"},
        {"POST /mcp HTTP/1.1\r\nTransfer-Encoding: gzip, Chunked\r\ncontent-length: 0\r\n\r\n",
         "invalid: chunked encoding not supported"},
        {"POST /mcp HTTP/1.1\r\ncontent-length: -1\r\n\r\n", "invalid: malformed Content-Length"},
        {"POST /mcp HTTP/1.1\r\ncontent-length: 1x\r\n\r\n", "invalid: malformed Content-Length"},
        {"POST /mcp HTTP/1.1\r\ncontent-length:\r\n\r\n", "invalid: malformed Content-Length"},
        {"POST /mcp HTTP/1.1\r\ncontent-length: 99999999999999999999\r\n\r\n",
         "invalid: malformed Content-Length"},
        {"POST /mcp HTTP/1.1\r\ncontent-length: 4194304\r\n\r\n", "more"},
        {"POST /mcp HTTP/1.1\r\ncontent-length: 4194305\r\n\r\n", "invalid: body too large"},
        {headOfSize(65536), "complete"},
        {headOfSize(65537), "invalid: header too large"},
        {std::string(65536, 'a'), "more"},
        {std::string(65537, 'a'), "invalid: header too large"},
    };
    for (const auto& [head, expected] : cases)
        EXPECT_EQ(described(HTTPRequestParser().append(asBytes(head))), expected) << head.substr(0, 80);
}

TEST(HTTPRequestParser, authorizesOnceAndBeforeTheBody) {
    int calls = 0;
    bool answer = true;
    const auto authorize = [&](const std::string& path, const HTTPRequestParser::Headers& headers) {
        ++calls;
        EXPECT_EQ(path, "/mcp");
        EXPECT_EQ(headers.at("authorization"), "Bearer x");
        return answer;
    };
    const std::string head = "POST /mcp?q HTTP/1.1\r\nAuthorization: Bearer x\r\ncontent-length: 3\r\n\r\n";
    HTTPRequestParser admitting(authorize);
    EXPECT_EQ(described(admitting.append(asBytes(head))), "more");
    EXPECT_EQ(described(admitting.append(asBytes("ab"))), "more");
    EXPECT_EQ(described(admitting.append(asBytes("c"))), "complete");
    EXPECT_EQ(calls, 1);
    answer = false;
    EXPECT_EQ(described(HTTPRequestParser(authorize).append(asBytes(head))), "unauthorized");
}

}  // namespace
}  // namespace dorvane::test
