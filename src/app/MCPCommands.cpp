// SPDX-License-Identifier: Apache-2.0
// The address for agents, and what they did.
#include <algorithm>
#include <iterator>

#include "app/ServiceCommands.h"
#include "automation/MCPClientSetupSnippets.h"
#include "automation/MCPLoopbackProbe.h"
#include "base/Localized.h"
#include "core/VMLookup.h"

namespace dorvane {
namespace {

Task<JSON> immediately(JSON value) { co_return value; }

JSON text(const std::string& value) { return {{"text", value}}; }

std::string probeSentence(const MCPLoopbackProbe::Result& result) {
    using Kind = MCPLoopbackProbe::Result::Kind;
    if (result.kind == Kind::ok) return localized("The MCP server answered with %d tools.", result.toolCount);
    if (result.kind == Kind::unauthorized) return localized("The MCP server refused the token.");
    return result.text;
}

Task<JSON> probe(AppState& app) {
    auto& server = app.mcpServerService();
    if (!server.isRunning())
        throw ControlError(
            ControlErrorCode::operationFailed,
            server.lastErrorMessage().value_or(localized(
                "The MCP server is off. To turn it on: dorvane settings set mcpServerEnabled true")));
    const auto result =
        co_await MCPLoopbackProbe::probe(app.runtime(), server.effectivePort(), server.endpointToken());
    const bool ok = result.kind == MCPLoopbackProbe::Result::Kind::ok;
    JSON shown{{"ok", ok}};
    shown["text"] = probeSentence(result);
    if (ok) shown["toolCount"] = result.toolCount;
    co_return shown;
}

std::vector<AgentActivityEntry> entriesAbout(AppState& app, const std::optional<std::string>& nameOrID) {
    const auto& log = app.activityLog();
    if (nameOrID) {
        if (const auto vm = findVM(app.makeSharedVMService().vms(), *nameOrID))
            return log.entries(vm->name, vm->id);
    }
    std::vector<AgentActivityEntry> found;
    // A machine that is gone is known by nothing but the word that the agents used.
    std::ranges::copy_if(log.entries(), std::back_inserter(found),
                         [&](const auto& entry) { return !nameOrID || entry.vm == *nameOrID; });
    return found;
}

JSON activity(AppState& app, const JSON& params) {
    const JSONReader reader(params);
    const auto limit = std::max<std::int64_t>(reader.optional<std::int64_t>("limit").value_or(50), 0);
    auto shown = JSON::array();
    for (const auto& entry : entriesAbout(app, reader.optional<std::string>("vm")))
        shown.push_back(entry.encoded());
    while (shown.size() > static_cast<std::size_t>(limit)) shown.erase(shown.begin());
    return shown;
}

}  // namespace

void addMCPCommands(ControlMethods& methods, AppState& app) {
    methods["mcp.url"].perform = [&app](const JSON&, const ProgressReporter&) {
        return immediately(text(app.mcpServerService().endpointURLString()));
    };
    methods["mcp.config"].perform = [&app](const JSON&, const ProgressReporter&) {
        return immediately(
            text(MCPClientSetupSnippets::jsonConfigSnippet(app.mcpServerService().endpointURLString())));
    };
    methods["mcp.token"].perform = [&app](const JSON& params, const ProgressReporter&) {
        if (params.value("regenerate", false) && !app.mcpServerService().regenerateToken())
            throw ControlError(
                ControlErrorCode::operationFailed,
                localized("The new token could not be stored: it holds until the service ends, "
                          "and then the old one may again. The log says why."));
        return immediately(text(app.mcpServerService().endpointToken()));
    };
    methods["mcp.probe"].perform = [&app](const JSON&, const ProgressReporter&) { return probe(app); };
    methods["log"].perform = [&app](const JSON& params, const ProgressReporter&) {
        return immediately(activity(app, params));
    };
}

}  // namespace dorvane
