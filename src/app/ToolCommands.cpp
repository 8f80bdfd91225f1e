// SPDX-License-Identifier: Apache-2.0
// Commands that agents have too: they run the very same tool operations, outside the activity log.
#include "app/ServiceCommands.h"

namespace dorvane {
namespace {

Task<MCPToolResult> runTool(AppState& app, std::string tool, JSON arguments) {
    const MCPToolArguments given(std::move(arguments));
    auto result = co_await app.mcpRequestHandler()->performTool(tool, given);
    if (result.isError) throw ControlError(ControlErrorCode::operationFailed, result.firstText());
    co_return result;
}

Task<JSON> runTextTool(AppState& app, std::string tool, JSON arguments) {
    const auto result = co_await runTool(app, std::move(tool), std::move(arguments));
    co_return parseJSON(result.firstText());
}

Task<JSON> screenshot(AppState& app, JSON params) {
    const auto result = co_await runTool(app, "screenshot", std::move(params));
    auto shown = JSON::object();
    shown["png"] = result.content.at(0).at("data");
    co_return shown;
}

}  // namespace

void addToolCommands(ControlMethods& methods, AppState& app) {
    methods["exec"].perform = [&app](JSON params, const ProgressReporter&) {
        return runTextTool(app, "exec_shell", std::move(params));
    };
    methods["screenshot"].perform = [&app](JSON params, const ProgressReporter&) {
        return screenshot(app, std::move(params));
    };
}

}  // namespace dorvane
