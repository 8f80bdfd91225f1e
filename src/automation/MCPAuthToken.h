// SPDX-License-Identifier: Apache-2.0
// The secret that every request to the MCP server carries.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "automation/HTTPRequestParser.h"
#include "platform/KeychainHelper.h"

namespace dorvane {

/// Free of state; safe on any thread. A token is 32 lower-case hexadecimal characters and has no end of life.
struct MCPAuthToken {
    static std::string makeToken();
    /// The stored token; made and stored first when there is none. May block for a moment.
    static std::string load(KeychainHelper& store);
    /// A new token, stored in the old one's place.
    static std::string regenerate(KeychainHelper& store);

    static bool isStored(KeychainHelper& store, std::string_view token);

    /// False when the lengths differ or either is empty; otherwise takes the same time wherever they differ.
    static bool matches(std::string_view a, std::string_view b);
    /// What stands behind "bearer " in `authorization`, if anything.
    static std::optional<std::string> bearerToken(const HTTPRequestParser::Headers& headers);
    /// By the path's "/mcp/<token>" or by the bearer token; a wrong one in one place doesn't spoil the other.
    /// An empty `token` lets nobody in.
    static bool isAuthorized(std::string_view path, const HTTPRequestParser::Headers& headers,
                             std::string_view token);
    /// Whether the path belongs to the endpoint at all: "/mcp", or anything behind "/mcp/".
    static bool isEndpointPath(std::string_view path);

    static std::string endpointURLString(int port, const std::string& token);
};

}  // namespace dorvane
