// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUEngineDigestCache.h"

#include <sys/stat.h>

#include "qemu/QEMUSuspendFingerprint.h"

namespace dorvane {

Task<std::string> QEMUEngineDigestCache::Digest::value() const {
    const auto state = state_;
    co_await state->isKnown.wait();
    co_return state->text;
}

bool QEMUEngineDigestCache::Digest::isUnreadable() const {
    return state_->isKnown.isSet() && state_->text == QEMUSuspendFingerprint::unreadableEngine;
}

QEMUEngineDigestCache::Digest QEMUEngineDigestCache::digest(const Path& executable) {
    // It may be readable by now.
    std::erase_if(known_, [](const auto& entry) { return entry.second.isUnreadable(); });
    struct stat status {};
    ::stat(executable.c_str(), &status);
    Key key{executable, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    const auto [entry, isNew] = known_.try_emplace(std::move(key));
    if (isNew)
        asio::post(runtime_.background.executor(), [state = entry->second.state_, executable] {
            state->text = QEMUSuspendFingerprint::engineDigest(executable);
            state->isKnown.set();
        });
    return entry->second;
}

}  // namespace dorvane
