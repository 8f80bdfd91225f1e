// SPDX-License-Identifier: Apache-2.0
// Copies of files and folders that cost as little disk as the file system allows.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// See `FileManager::copyItem`. Permissions, modification times and the user's extended attributes come along
/// (the attributes where both sides have them). What is neither file, folder nor link is refused (ENOTSUP),
/// and so is a copy into itself (EINVAL).
void copyFileTree(const Path& from, const Path& to);

}  // namespace dorvane
