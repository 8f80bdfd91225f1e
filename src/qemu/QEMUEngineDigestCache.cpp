// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUEngineDigestCache.h"

#include <sys/stat.h>

#include "qemu/QEMUSuspendFingerprint.h"

namespace dorvane {

std::optional<QEMUEngineDigestCache::Key> QEMUEngineDigestCache::key(const Path& executable) {
    struct stat status {};
    if (::stat(executable.c_str(), &status) != 0) return std::nullopt;
    return Key{executable, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

Task<std::string> QEMUEngineDigestCache::digest(Path executable) {
    const auto identity = key(executable);
    if (identity)
        if (const auto found = known_.find(*identity); found != known_.end()) co_return found->second;
    auto work = [executable] { return QEMUSuspendFingerprint::engineDigest(executable); };
    auto result = co_await runtime_.background.run(std::move(work));
    if (identity) known_[*identity] = result;
    co_return result;
}

}  // namespace dorvane
