// SPDX-License-Identifier: Apache-2.0
// What the MCP server hands complete requests to.
#pragma once

#include "automation/HTTPRequestParser.h"
#include "automation/MCPHTTPResponse.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only.
class MCPRequestHandlerProtocol {
  public:
    virtual ~MCPRequestHandlerProtocol() = default;

    /// Answers one request, in its own time. Throws nothing but a cancellation.
    virtual Task<MCPHTTPResponse> handle(HTTPRequestParser::Request request) = 0;
};

}  // namespace dorvane
