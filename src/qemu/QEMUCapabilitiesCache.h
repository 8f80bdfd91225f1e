// SPDX-License-Identifier: Apache-2.0
// Asks each QEMU binary once what it can do.
#pragma once

#include <functional>
#include <map>
#include <tuple>

#include "qemu/QEMUCapabilities.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

/// Main thread only. Keyed by path, size and modification time, so that a replaced binary is asked anew.
class QEMUCapabilitiesCache {
  public:
    /// Runs the binary for its help texts; `additions` go over this process's environment.
    using HelpReader = std::function<Task<QEMUHelpTexts>(Path executable, Environment additions)>;

    explicit QEMUCapabilitiesCache(HelpReader reader) : reader_(std::move(reader)) {}
    /// Runs the binary itself.
    explicit QEMUCapabilitiesCache(const Runtime& runtime);

    /// Throws FileError when there is no such file and POSIXError when it can't be started. What did not even
    /// tell its version is not kept.
    Task<QEMUCapabilities> capabilities(Path executable, Environment additions);

  private:
    using Key = std::tuple<Path, std::uintmax_t, std::filesystem::file_time_type>;

    HelpReader reader_;
    std::map<Key, QEMUCapabilities> known_;
};

}  // namespace dorvane
