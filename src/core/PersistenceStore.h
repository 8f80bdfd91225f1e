// SPDX-License-Identifier: Apache-2.0
// Where the library's store stands.
#pragma once

#include <memory>

#include "core/ModelContext.h"
#include "runtime/Files.h"

namespace dorvane {

struct PersistenceStore {
    static constexpr auto directoryName = "Dorvane";
    static constexpr auto fileName = "Dorvane.store";

    /// Opens "Dorvane/Dorvane.store" below the base directory, the application support directory in
    /// production; makes what isn't there. Throws StoreError or FileError; without a library the program
    /// can't go on.
    static std::unique_ptr<ModelContext> makeModelContainer(const Path& baseDirectory);
};

}  // namespace dorvane
