// SPDX-License-Identifier: Apache-2.0
// Conversion of a foreign disk image, with progress.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/Files.h"
#include "runtime/Runtime.h"

namespace dorvane {

struct QEMUImageConverter {
    /// Takes 0.0 to 1.0; called off the main thread.
    using Progress = std::function<void(double)>;

    /// Runs "qemu-img convert" and returns when it has succeeded. A cancellation ends the tool and throws
    /// CancellationError once it has gone. Throws vmImportFailed with the tool's words, POSIXError when it
    /// can't be started. What was written to `destination` stays for the caller to remove.
    static Task<void> convertToQcow2(const Runtime& runtime, Path tool, Path source, std::string sourceFormat,
                                     Path destination, Progress progress);

    /// The last progress that the tool's output tells, such as 0.425 for "(42.50/100%)"; absent when it tells
    /// none.
    static std::optional<double> lastProgress(std::string_view output);
};

}  // namespace dorvane
