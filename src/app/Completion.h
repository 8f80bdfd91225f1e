// SPDX-License-Identifier: Apache-2.0
// Shell completion made from the command definitions.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace dorvane {

/// The script for "bash", "zsh" or "fish"; absent for another shell. Machine names are completed by asking
/// the running service.
std::optional<std::string> completionScriptFor(const CLI::App& app, const std::string& shell);

}  // namespace dorvane
