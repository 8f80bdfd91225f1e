// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPHTTPResponse.h"

namespace dorvane {

std::string MCPHTTPResponse::serialized() const {
    auto all = headers;
    all["Content-Length"] = std::to_string(body.size());
    all["Connection"] = "close";
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
    text.reserve(text.size() + body.size() + 256);
    for (const auto& [key, value] : all) text.append(key).append(": ").append(value).append("\r\n");
    return text.append("\r\n").append(body);
}

MCPHTTPResponse MCPHTTPResponse::unauthorized() {
    return empty(401, "Unauthorized - reconnect Dorvane in your MCP client",
                 {{"WWW-Authenticate", "Bearer"}});
}

}  // namespace dorvane
