// SPDX-License-Identifier: Apache-2.0
// How far a backup or a restore has come.
#pragma once

#include <functional>
#include <optional>

namespace dorvane {

struct VMBackupProgress {
    enum class Phase { preparing, compressing, extracting, installing };
    Phase phase = Phase::preparing;
    /// From 0 to 1; absent means indeterminate.
    std::optional<double> fraction = {};
    bool operator==(const VMBackupProgress&) const = default;
};

/// Called on the main thread, never after the operation has ended; may be empty.
using VMBackupProgressHandler = std::function<void(const VMBackupProgress&)>;

}  // namespace dorvane
