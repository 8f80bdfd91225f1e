// SPDX-License-Identifier: Apache-2.0
// One HTTP/1.1 response (RFC 9112) of the MCP server.
#pragma once

#include <map>
#include <string>

namespace dorvane {

struct MCPHTTPResponse {
    using Headers = std::map<std::string, std::string>;

    int status = 200;
    std::string reason = "OK";
    Headers headers;
    /// Raw bytes.
    std::string body;

    /// The whole response as bytes. `Content-Length` and `Connection: close` are always there; headers come
    /// sorted by name.
    std::string serialized() const;

    static MCPHTTPResponse empty(int status, std::string reason, Headers headers = {}) {
        return {status, std::move(reason), std::move(headers), {}};
    }
    /// The same words for a head that is refused and for a token that changed while a request was under way.
    static MCPHTTPResponse unauthorized();
};

}  // namespace dorvane
