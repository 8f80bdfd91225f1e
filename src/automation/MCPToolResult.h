// SPDX-License-Identifier: Apache-2.0
// What a tool call comes to, in the form of the MCP specification's CallToolResult.
#pragma once

#include <string>

#include "base/JSON.h"

namespace dorvane {

struct MCPToolResult {
    JSON content;
    bool isError = false;

    /// The value as pretty-printed JSON text.
    static MCPToolResult success(const JSON& value) { return text(prettyJSON(value), false); }
    static MCPToolResult failure(const std::string& message) { return text(message, true); }
    static MCPToolResult png(ByteView image);

    JSON encoded() const;
    /// The text of the first piece of content, if it is a text.
    std::string firstText() const;

  private:
    static MCPToolResult text(const std::string& words, bool isError);
};

}  // namespace dorvane
