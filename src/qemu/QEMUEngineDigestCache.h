// SPDX-License-Identifier: Apache-2.0
// The digest of a QEMU binary, taken once for each file.
#pragma once

#include <map>
#include <optional>
#include <tuple>

#include "runtime/Files.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Main thread. Keyed by path, inode, size and modification time, so that a replaced binary is read anew.
class QEMUEngineDigestCache {
  public:
    explicit QEMUEngineDigestCache(const Runtime& runtime) : runtime_(runtime) {}

    /// What QEMUSuspendFingerprint::engineDigest gives, read on the background pool.
    Task<std::string> digest(Path executable);

  private:
    using Key = std::tuple<Path, std::uint64_t, std::int64_t, std::int64_t, std::int64_t>;
    static std::optional<Key> key(const Path& executable);

    const Runtime& runtime_;
    std::map<Key, std::string> known_;
};

}  // namespace dorvane
