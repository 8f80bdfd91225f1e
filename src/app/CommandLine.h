// SPDX-License-Identifier: Apache-2.0
// From words on a command line to one thing to do.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/JSON.h"
#include "runtime/Files.h"

namespace dorvane {

/// One request to the running service, and how its result is shown.
struct ServiceCall {
    std::string method;
    JSON params = JSON::object();
    /// Prints the result for a person; with --json the result itself is printed instead.
    std::function<void(const JSON& result)> print = {};
    /// The exit status that a result means; absent means 0.
    std::function<int(const JSON& result)> exitStatus = {};
    bool json = false;
    /// Asked on a terminal before the call; without one the call is refused with the command that would work.
    std::optional<std::string> question = {};
    std::string unattendedCommand = {};
};

struct ServeRequest {
    std::optional<Path> storage;
    std::optional<int> port;
    bool verbose = false;
};

/// Text for standard output and the exit status that goes with it (help, version, completion, a usage error).
struct PrintRequest {
    std::string text;
    bool isError = false;
    int exitStatus = 0;
};

using CommandRequest = std::variant<ServiceCall, ServeRequest, PrintRequest>;

/// Never throws for what a user typed: a mistake becomes a PrintRequest with exit status 2.
CommandRequest parseCommandLine(const std::vector<std::string>& arguments);

/// The completion script for "bash", "zsh" or "fish", made from the same definitions. Absent for another
/// name.
std::optional<std::string> completionScript(const std::string& shell);

}  // namespace dorvane
