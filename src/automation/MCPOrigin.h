// SPDX-License-Identifier: Apache-2.0
// Which web pages may talk to the MCP server: those that this machine serves itself.
#pragma once

#include <string_view>

namespace dorvane {

/// An `Origin` header's value (RFC 6454): a URL whose host is exactly 127.0.0.1, localhost or ::1.
bool isAllowedMCPOrigin(std::string_view origin);

}  // namespace dorvane
