// SPDX-License-Identifier: Apache-2.0
// Whether the process may end, and bringing the machines down before it does.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/LongOperationRegistry.h"
#include "core/VMEngineProtocol.h"
#include "core/VMOperationGate.h"

namespace dorvane {

/// The question before quitting; a warning with two buttons, of which the second is "Cancel".
struct QuitQuestion {
    std::string title;
    /// Paragraphs, joined by an empty line.
    std::string text;
    std::string confirmButton;
    /// Whether machines ran when the question was made.
    bool stopsMachines = false;
};

/// Main thread only.
class QuitFlow {
  public:
    enum class Reply { now, cancel, later };

    QuitFlow(const VMOperationGate& gate, const LongOperationRegistry& operations, VMEngineProtocol& engine)
        : gate_(gate), operations_(operations), engine_(engine) {}

    /// What has to be asked; absent when nothing runs and nothing is in progress.
    std::optional<QuitQuestion> question() const;
    /// Asks, if there is something to ask; `confirm` says whether the first button was chosen. After `later`
    /// the caller awaits `stopAllVMs` and then ends the process.
    Reply shouldTerminate(const std::function<bool(const QuitQuestion&)>& confirm) const;
    /// Every machine is asked to shut down and powered off after 30 s.
    Task<void> stopAllVMs() const;

  private:
    std::vector<std::string> labels() const;

    const VMOperationGate& gate_;
    const LongOperationRegistry& operations_;
    VMEngineProtocol& engine_;
};

/// "a", "a and b", "a, b, and c".
std::string listText(const std::vector<std::string>& items);

}  // namespace dorvane
