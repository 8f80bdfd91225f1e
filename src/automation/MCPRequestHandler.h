// SPDX-License-Identifier: Apache-2.0
// The JSON-RPC layer of the MCP server (Model Context Protocol, Streamable HTTP without an event stream).
#pragma once

#include <functional>
#include <optional>

#include "automation/AgentActivityLog.h"
#include "automation/MCPRequestHandlerProtocol.h"
#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"
#include "automation/MCPToolResult.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Main thread only. Keeps nothing about its clients: each request stands alone, and several may be under
/// way. Held by a shared pointer for as long as one is.
class MCPRequestHandler : public MCPRequestHandlerProtocol {
  public:
    /// The token that requests must carry; absent lets nobody in.
    using TokenProvider = std::function<std::optional<std::string>()>;

    /// The services and the log outlive every request; `activityLog` may be null.
    MCPRequestHandler(const Runtime& runtime, MCPToolContext::Services services,
                      AgentActivityLog* activityLog, std::string serverVersion, TokenProvider tokenProvider);

    Task<MCPHTTPResponse> handle(HTTPRequestParser::Request request) override;

    /// Answers one JSON-RPC message.
    Task<MCPHTTPResponse> handlePost(Bytes body);
    /// The method's result as compact JSON text. Throws MCPMethodError, and what else went wrong.
    Task<std::string> dispatch(std::string method, JSON params);
    /// Runs a tool and puts the call into the activity log. A failure is a result like any other.
    Task<MCPToolResult> callTool(std::string name, JSON arguments);
    /// The tool alone, outside the activity log. Both arguments outlive the task.
    Task<MCPToolResult> performTool(const std::string& name, const MCPToolArguments& arguments);

  private:
    std::string initializeResult(const JSON& params) const;

    const Runtime& runtime_;
    const std::shared_ptr<const MCPToolContext> context_;
    AgentActivityLog* const activityLog_;
    const std::string serverVersion_;
    const TokenProvider tokenProvider_;
};

}  // namespace dorvane
