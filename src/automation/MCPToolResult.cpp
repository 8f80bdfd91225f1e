// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolResult.h"

#include "base/Hex.h"

namespace dorvane {

MCPToolResult MCPToolResult::text(const std::string& words, bool isError) {
    JSON piece;
    piece["type"] = "text";
    piece["text"] = words;
    return {JSON::array({std::move(piece)}), isError};
}

MCPToolResult MCPToolResult::png(ByteView image) {
    JSON piece;
    piece["type"] = "image";
    piece["data"] = base64Text(image);
    piece["mimeType"] = "image/png";
    return {JSON::array({std::move(piece)}), false};
}

JSON MCPToolResult::encoded() const {
    JSON result;
    result["content"] = content;
    result["isError"] = isError;
    return result;
}

std::string MCPToolResult::firstText() const {
    return content.empty() ? "" : content.front().value("text", "");
}

}  // namespace dorvane
