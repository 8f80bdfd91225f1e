// SPDX-License-Identifier: Apache-2.0
// Commands that agents have too: they run the very same tool operations, outside the activity log.
#include "app/ServiceCommands.h"

namespace dorvane {
namespace {

/// How a command's parameters are called by the tool.
using Renames = std::map<std::string, std::string>;

JSON toolArguments(const JSON& params, const Renames& renames) {
    auto arguments = JSON::object();
    for (const auto& [key, value] : params.items()) {
        const auto renamed = renames.find(key);
        arguments[renamed == renames.end() ? key : renamed->second] = value;
    }
    return arguments;
}

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
    const auto add = [&](const char* method, const char* tool, const Renames& renames) {
        methods[method].perform = [&app, tool, renames](const JSON& params, const ProgressReporter&) {
            return runTextTool(app, tool, toolArguments(params, renames));
        };
    };
    add("exec", "exec_shell", {});
    add("snapshot.list", "list_snapshots", {});
    add("snapshot.take", "take_snapshot", {{"includeMemory", "include_memory"}});
    add("snapshot.restore", "restore_snapshot", {});
    for (const auto* changing : {"snapshot.take", "snapshot.restore"})
        methods[changing].withdraw = [](const JSON&) {};
    methods["screenshot"].perform = [&app](JSON params, const ProgressReporter&) {
        return screenshot(app, std::move(params));
    };
}

}  // namespace dorvane
