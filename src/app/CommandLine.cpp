// SPDX-License-Identifier: Apache-2.0
#include "app/CommandLine.h"

#include <CLI/CLI.hpp>

#include "app/CommandDefinitions.h"
#include "app/Completion.h"

namespace dorvane {
namespace {

constexpr int usageErrorStatus = 2;

}  // namespace

CommandRequest parseCommandLine(const std::vector<std::string>& arguments) {
    CLI::App app;
    CommandRequest request = PrintRequest{};
    defineCommands(app, request);
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::Success& help) {
        std::ostringstream text, ignored;
        app.exit(help, text, ignored);
        return PrintRequest{text.str()};
    } catch (const CLI::ParseError& error) {
        return PrintRequest{std::string(error.what()) + "\nRun dorvane --help for the commands.\n", true,
                            usageErrorStatus};
    }
    return request;
}

std::optional<std::string> completionScript(const std::string& shell) {
    CLI::App app;
    CommandRequest unused = PrintRequest{};
    defineCommands(app, unused);
    return completionScriptFor(app, shell);
}

}  // namespace dorvane
