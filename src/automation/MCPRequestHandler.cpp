// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPRequestHandler.h"

#include "automation/JSONRPCMessage.h"
#include "automation/MCPAuthToken.h"
#include "automation/MCPCallSummary.h"
#include "automation/MCPErrors.h"
#include "automation/MCPOrigin.h"
#include "automation/MCPToolOperations.h"
#include "automation/MCPToolTable.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr int parseErrorCode = -32700, invalidRequestCode = -32600, methodNotFoundCode = -32601,
              invalidParamsCode = -32602, internalErrorCode = -32603;
constexpr auto noID = "null";
constexpr auto defaultProtocolVersion = "2025-03-26";

MCPHTTPResponse jsonResponse(std::string body) {
    return {200, "OK", {{"Content-Type", "application/json"}}, std::move(body)};
}

MCPHTTPResponse errorResponse(std::string_view idText, int code, const std::string& message) {
    return jsonResponse(JSONRPCMessage::errorReply(idText, code, message));
}

bool isKnownProtocolVersion(const std::string& version) {
    return version == "2024-11-05" || version == "2025-03-26" || version == "2025-06-18";
}

JSON objectMember(const JSON& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() && member->is_object() ? *member : JSON::object();
}

MCPHTTPResponse failureResponse(std::string_view idText, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const MCPMethodError& error) {
        return errorResponse(idText, error.code(), error.what());
    } catch (...) {
        return errorResponse(idText, internalErrorCode, localizedDescription(failure));
    }
}

/// Who sent the request, and whether it may; absent when it may.
std::optional<MCPHTTPResponse> refusal(const HTTPRequestParser::Request& request, const std::string& token) {
    const auto origin = request.headers.find("origin");
    if (origin != request.headers.end() && !isAllowedMCPOrigin(origin->second))
        return MCPHTTPResponse::empty(403, "Forbidden");
    if (!MCPAuthToken::isEndpointPath(request.path)) return MCPHTTPResponse::empty(404, "Not Found");
    if (!MCPAuthToken::isAuthorized(request.path, request.headers, token))
        return MCPHTTPResponse::unauthorized();
    if (request.method != "POST")
        return MCPHTTPResponse::empty(405, "Method Not Allowed", {{"Allow", "POST"}});
    return std::nullopt;
}

}  // namespace

MCPRequestHandler::MCPRequestHandler(const Runtime& runtime, MCPToolContext::Services services,
                                     AgentActivityLog* activityLog, std::string serverVersion,
                                     TokenProvider tokenProvider)
    : runtime_(runtime),
      context_(std::make_shared<MCPToolContext>(services, runtime.clock)),
      activityLog_(activityLog),
      serverVersion_(std::move(serverVersion)),
      tokenProvider_(std::move(tokenProvider)) {}

Task<MCPHTTPResponse> MCPRequestHandler::handle(HTTPRequestParser::Request request) {
    runtime_.main.assertIsolated();
    if (auto refused = refusal(request, tokenProvider_().value_or(""))) co_return *std::move(refused);
    auto response = co_await handlePost(std::move(request.body));
    co_return response;
}

Task<MCPHTTPResponse> MCPRequestHandler::handlePost(Bytes body) {
    auto message = JSONRPCMessage::parse(asText(body));
    if (std::holds_alternative<JSONRPCMessage::NotJSON>(message))
        co_return errorResponse(noID, parseErrorCode, "Parse error");
    if (std::holds_alternative<JSONRPCMessage::NotAnObject>(message))
        co_return errorResponse(noID, invalidRequestCode, "Batch requests are not supported");
    if (std::holds_alternative<JSONRPCMessage::Notification>(message))
        co_return MCPHTTPResponse::empty(202, "Accepted");
    if (const auto* incomplete = std::get_if<JSONRPCMessage::WithoutMethod>(&message))
        co_return errorResponse(incomplete->idText, invalidRequestCode, "Invalid Request");
    auto& call = std::get<JSONRPCMessage::Call>(message);
    std::exception_ptr failure;
    std::string result;
    try {
        result = co_await dispatch(std::move(call.method), std::move(call.params));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) co_return failureResponse(call.idText, failure);
    co_return jsonResponse(JSONRPCMessage::resultReply(call.idText, result));
}

Task<std::string> MCPRequestHandler::dispatch(std::string method, JSON params) {
    if (method == "initialize") co_return initializeResult(params);
    if (method == "ping") co_return "{}";
    if (method == "tools/list") co_return MCPToolTable::listText(context_->offersDestructiveTools());
    if (method != "tools/call") throw MCPMethodError(methodNotFoundCode, "Method not found: " + method);
    const auto name = params.find("name");
    if (name == params.end() || !name->is_string())
        throw MCPMethodError(invalidParamsCode, "Missing tool name");
    const auto result = co_await callTool(name->get<std::string>(), objectMember(params, "arguments"));
    co_return compactJSON(result.encoded());
}

std::string MCPRequestHandler::initializeResult(const JSON& params) const {
    const auto wished = params.find("protocolVersion");
    const bool isKnown =
        wished != params.end() && wished->is_string() && isKnownProtocolVersion(wished->get<std::string>());
    JSON result;
    result["protocolVersion"] = isKnown ? wished->get<std::string>() : defaultProtocolVersion;
    result["capabilities"]["tools"] = JSON::object();
    result["serverInfo"]["name"] = "Dorvane";
    result["serverInfo"]["version"] = serverVersion_;
    result["instructions"] = MCPToolTable::instructions();
    return compactJSON(result);
}

Task<MCPToolResult> MCPRequestHandler::callTool(std::string name, JSON arguments) {
    const auto start = runtime_.clock.now();
    AgentActivityEntry entry;
    entry.date = runtime_.clock.date();
    const MCPToolArguments reader(std::move(arguments));
    auto result = co_await performTool(name, reader);
    if (activityLog_ == nullptr) co_return result;
    entry.tool = name;
    entry.vm = reader.text("vm");
    entry.summary = mcpCallSummary(name, reader);
    entry.succeeded = !result.isError;
    if (result.isError) entry.error = result.firstText();
    entry.durationMilliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(runtime_.clock.now() - start).count();
    activityLog_->record(std::move(entry));
    co_return result;
}

Task<MCPToolResult> MCPRequestHandler::performTool(const std::string& name,
                                                   const MCPToolArguments& arguments) {
    const auto operation = findToolOperation(name);
    if (operation == nullptr) co_return MCPToolResult::failure("Unknown tool: " + name);
    std::exception_ptr failure;
    MCPToolResult result;
    try {
        result = co_await operation(*context_, arguments);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) result = MCPToolResult::failure(describedWithSuggestion(failure));
    co_return result;
}

}  // namespace dorvane
