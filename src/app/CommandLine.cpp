// SPDX-License-Identifier: Apache-2.0
#include "app/CommandLine.h"

#include <CLI/CLI.hpp>

#include "app/CommandDefinitions.h"
#include "app/Completion.h"
#include "base/Localized.h"

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
        const auto unknown = app.remaining(true);
        const bool isMissing =
            error.get_name() == "RequiredError" && !unknown.empty() && !unknown.front().starts_with('-');
        const auto reason =
            isMissing ? localized("There is no command “%@”.", unknown.front()) : std::string(error.what());
        return PrintRequest{reason + "\nRun dorvane --help for the commands.\n", true, usageErrorStatus};
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
