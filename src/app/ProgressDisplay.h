// SPDX-License-Identifier: Apache-2.0
// How far a long request has come, on standard error.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "app/ControlProtocol.h"

namespace dorvane {

/// On a terminal one line that is drawn over and over and leaves nothing behind; elsewhere a plain line for
/// each step and each tenth of it.
class ProgressDisplay {
  public:
    ProgressDisplay(std::ostream& out, bool isTerminal) : out_(out), isTerminal_(isTerminal) {}
    ~ProgressDisplay() { clear(); }
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    void show(const ControlProgress& progress);
    /// Takes the bar away, before anything else is printed.
    void clear();

  private:
    std::ostream& out_;
    const bool isTerminal_;
    /// What stands on the terminal, or was printed last.
    std::string shown_;
};

}  // namespace dorvane
