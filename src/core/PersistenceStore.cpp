// SPDX-License-Identifier: Apache-2.0
#include "core/PersistenceStore.h"

#include "core/SQLiteModelContext.h"

namespace dorvane {

std::unique_ptr<ModelContext> PersistenceStore::makeModelContainer(const Path& baseDirectory) {
    const auto directory = baseDirectory / directoryName;
    std::error_code failure;
    std::filesystem::create_directories(directory, failure);
    if (failure) throw FileError("create", directory, failure.value());
    return std::make_unique<SQLiteModelContext>(directory / fileName);
}

}  // namespace dorvane
