// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "app/CommandLine.h"
#include "app/ControlClient.h"
#include "app/ProgressDisplay.h"
#include "app/Service.h"
#include "runtime/SignalWatcher.h"

namespace dorvane {
namespace {

constexpr int failureStatus = 1;

bool isTerminal() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1; }

/// Asks on the terminal. Without one, fails with the command that would work.
bool confirm(const ServiceCall& call) {
    if (!call.question) return true;
    if (!isTerminal()) {
        std::cerr << "There is no terminal to ask on. To do it without a question: " << call.unattendedCommand
                  << '\n';
        return false;
    }
    std::cerr << *call.question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

int runCall(const ServiceCall& call) {
    if (!confirm(call)) return failureStatus;
    ControlClient client(controlSocketPath());
    ProgressDisplay display(std::cerr, ::isatty(STDERR_FILENO) == 1);
    const auto result = client.call(call.method, call.params,
                                    [&](const ControlProgress& progress) { display.show(progress); });
    display.clear();
    if (call.json || !call.print)
        std::cout << prettyJSON(result) << '\n';
    else
        call.print(result);
    std::cout.flush();
    if (!std::cout) {
        std::cerr << "Could not write to standard output.\n";
        return failureStatus;
    }
    return call.exitStatus ? call.exitStatus(result) : 0;
}

int runRequest(const CommandRequest& request) {
    if (const auto* serve = std::get_if<ServeRequest>(&request)) return runService(*serve);
    if (const auto* call = std::get_if<ServiceCall>(&request)) return runCall(*call);
    const auto& print = std::get<PrintRequest>(request);
    (print.isError ? std::cerr : std::cout) << print.text;
    return print.exitStatus;
}

}  // namespace
}  // namespace dorvane

int main(int argc, char** argv) {
    dorvane::ignoreBrokenPipes();
    try {
        return dorvane::runRequest(dorvane::parseCommandLine({argv + 1, argv + argc}));
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return dorvane::failureStatus;
    }
}
