// SPDX-License-Identifier: Apache-2.0
// Taking away what a failed operation made.
#pragma once

#include "runtime/Files.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Best effort, in the background.
inline Task<void> removeDirectory(const Runtime& runtime, Path directory) {
    const auto remove = [&directory] {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    };
    co_await runtime.background.run(remove);
}

}  // namespace dorvane
