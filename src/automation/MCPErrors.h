// SPDX-License-Identifier: Apache-2.0
// The two failures of the MCP layer: of a JSON-RPC method, and of a tool.
#pragma once

#include <stdexcept>
#include <string>

namespace dorvane {

/// Becomes a JSON-RPC error (JSON-RPC 2.0, section 5.1).
class MCPMethodError : public std::runtime_error {
  public:
    MCPMethodError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

  private:
    int code_;
};

/// Becomes a failed tool result, whose text tells an agent what to do next.
class MCPToolError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace dorvane
