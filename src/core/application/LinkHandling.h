// SPDX-License-Identifier: Apache-2.0
// Carrying out `dorvane:` links.
#pragma once

#include "automation/URLCommand.h"
#include "core/VMServiceProtocol.h"
#include "platform/DefaultsStore.h"
#include "runtime/Clock.h"
#include "snapshots/VMSnapshotServiceProtocol.h"

namespace dorvane {

/// What became of a link.
struct LinkOutcome {
    enum class Kind {
        /// It is no command.
        ignored,
        /// The user hasn't allowed links.
        turnedOff,
        /// There is no such machine, or the operation failed.
        failed,
        done,
    };

    Kind kind = Kind::ignored;
    std::optional<URLCommand> command = {};
    /// The sentence to show for `turnedOff` and `failed`.
    std::string alert = {};
    VMRecordPointer vm = {};
    /// Whether the machine was in a state in which the command means something.
    bool hasActed = false;
    /// Whether the machine's display is to be opened.
    bool wantsDisplay = false;
};

/// References outlive the task.
struct LinkServices {
    VMServiceProtocol& vmService;
    VMSnapshotServiceProtocol& snapshotService;
    const DefaultsStore& defaults;
    const Clock& clock;
};

/// Main thread only. Throws nothing but a cancellation.
Task<LinkOutcome> performLink(LinkServices services, std::string url);

/// Three passes over the list: the UUID in upper case, the exact name, the name without regard to case. Null
/// when none.
VMRecordPointer findLinkedVM(const std::vector<VMRecordPointer>& vms, const std::string& nameOrID);

}  // namespace dorvane
