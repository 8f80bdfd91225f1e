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
    /// Runs the binary for its help texts; blocking, called on the background pool.
    using HelpReader = std::function<QEMUHelpTexts(const Path& executable)>;

    explicit QEMUCapabilitiesCache(const Runtime& runtime, HelpReader reader);

    /// Throws FileError when there is no such file and POSIXError when it can't be started; a failure is not kept.
    Task<QEMUCapabilities> capabilities(Path executable);

    /// Runs the binary itself, with this environment or, when absent, this process's own.
    static HelpReader helpReader(std::optional<Environment> environment);

  private:
    using Key = std::tuple<Path, std::uintmax_t, std::filesystem::file_time_type>;

    const Runtime& runtime_;
    HelpReader reader_;
    std::map<Key, QEMUCapabilities> known_;
};

}  // namespace dorvane
