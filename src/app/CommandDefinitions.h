// SPDX-License-Identifier: Apache-2.0
// Every command of the program, with its options.
#pragma once

#include <CLI/App.hpp>

#include "app/CommandLine.h"

namespace dorvane {

/// Adds the commands; the one that is chosen while `app` parses fills `request`, which outlives the parsing.
void defineCommands(CLI::App& app, CommandRequest& request);

}  // namespace dorvane
