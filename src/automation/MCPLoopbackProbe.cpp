// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPLoopbackProbe.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <charconv>

#include "base/JSON.h"
#include "base/Localized.h"
#include "base/Text.h"
#include "runtime/StreamConnection.h"
#include "runtime/SystemError.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

using Result = MCPLoopbackProbe::Result;

constexpr std::string_view requestBody = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})";
constexpr std::size_t probeReceiveSize = 65536;
/// Nothing that answers a probe in earnest sends more.
constexpr std::size_t maximumResponseBytes = 4194304;

std::string requestText(int port, const std::string& token) {
    std::string text = "POST /mcp/" + token + " HTTP/1.1\r\n";
    text += "Host: 127.0.0.1:" + std::to_string(port) + "\r\n";
    text += "Content-Type: application/json\r\n";
    text += "Content-Length: " + std::to_string(requestBody.size()) + "\r\n";
    text += "Connection: close\r\n\r\n";
    return text.append(requestBody);
}

Task<FileDescriptor> connectToLoopback(SerialQueue queue, int port) {
    asio::basic_stream_socket<asio::ip::tcp, Executor> socket(queue.executor());
    const asio::ip::tcp::endpoint endpoint(asio::ip::address_v4::loopback(),
                                           static_cast<std::uint16_t>(port));
    boost::system::error_code error;
    co_await socket.async_connect(endpoint, asio::redirect_error(asio::use_awaitable_t<Executor>{}, error));
    if (error) throw POSIXError(error.value());
    co_return FileDescriptor(socket.release());
}

/// Everything that the server sends until it closes. Runs on the probe's queue.
Task<Bytes> exchange(SerialQueue queue, int port, std::string request) {
    auto fd = co_await connectToLoopback(queue, port);
    StreamConnection connection(queue, std::move(fd), AF_INET);
    co_await connection.write(asBytes(request));
    Bytes response;
    while (response.size() < maximumResponseBytes) {
        const auto count = co_await connection.read(response, probeReceiveSize);
        if (count == 0) break;
    }
    co_return response;
}

std::vector<std::string> words(std::string_view line) {
    auto pieces = split(line, ' ');
    std::erase(pieces, "");
    return pieces;
}

std::optional<int> statusCode(std::string_view statusLine) {
    const auto pieces = words(statusLine);
    if (pieces.size() < 2) return std::nullopt;
    const auto& text = pieces[1];
    int status = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), status);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return status;
}

Result interpretBody(std::string_view body) {
    try {
        const auto message = parseJSON(body);
        const auto tools = message.at("result").at("tools");
        if (tools.is_array()) return Result::ok(tools.size());
    } catch (const JSONError&) {
        // Told below, like every other answer of the wrong form.
    } catch (const JSON::exception&) {
        // A member is missing or something other than an object.
    }
    return Result::unexpectedResponse("Response was not an MCP tools/list result");
}

}  // namespace

Task<Result> MCPLoopbackProbe::probe(const Runtime& runtime, int port, std::string token) {
    if (port < 1 || port > 65535) co_return Result::unreachable("Invalid port");
    const auto queue = runtime.makeQueue("com.dorvane.app.mcp-probe");
    std::optional<Bytes> response;
    std::exception_ptr failure;
    try {
        auto conversation = onExecutor(queue.executor(), exchange(queue, port, requestText(port, token)));
        response = co_await withTimeout(runtime.clock, timeLimit, std::move(conversation));
    } catch (...) {
        failure = std::current_exception();
    }
    if (isCancellation(failure)) std::rethrow_exception(failure);
    if (failure) co_return Result::unreachable(errorText(failure));
    if (!response) co_return Result::unreachable(localized("The MCP server did not respond."));
    co_return interpret(*response);
}

Result MCPLoopbackProbe::interpret(ByteView response) {
    const auto text = asText(response);
    const auto end = text.find("\r\n\r\n");
    const auto head = text.substr(0, end);
    if (end == std::string_view::npos || head.empty() || !isValidUTF8(head))
        return Result::unexpectedResponse("Malformed HTTP response");
    const auto status = statusCode(head.substr(0, head.find("\r\n")));
    if (!status) return Result::unexpectedResponse("Malformed status line");
    if (*status == 401) return Result::unauthorized();
    if (*status != 200) return Result::unexpectedResponse("HTTP " + std::to_string(*status));
    return interpretBody(text.substr(end + 4));
}

}  // namespace dorvane
