// SPDX-License-Identifier: Apache-2.0
#include "core/SecurityScopedBookmarkStore.h"

#include "runtime/Logger.h"

namespace dorvane {

using AccessToken = SecurityScopedBookmarkStore::AccessToken;

AccessToken::AccessToken(AccessToken&& other) noexcept { *this = std::move(other); }

AccessToken& AccessToken::operator=(AccessToken&& other) noexcept {
    if (this == &other) return *this;
    end();
    resources_ = std::exchange(other.resources_, nullptr);
    paths_ = std::exchange(other.paths_, {});
    refreshed_ = std::exchange(other.refreshed_, {});
    return *this;
}

void AccessToken::end() noexcept {
    for (const auto& path : std::exchange(paths_, {})) resources_->stopAccessing(path);
}

AccessToken SecurityScopedBookmarkStore::beginAccess(const Bookmarks& bookmarksByPath) {
    AccessToken token;
    if (resources_ == nullptr) return token;
    token.resources_ = resources_;
    for (const auto& [path, bookmark] : bookmarksByPath) {
        try {
            open(token, path, bookmark);
        } catch (const std::exception&) {
            Logger("Bookmark").error("Could not resolve bookmark for %{public}s", path);
        }
    }
    return token;
}

void SecurityScopedBookmarkStore::open(AccessToken& token, const std::string& path, ByteView bookmark) {
    const auto resolved = resources_->resolve(bookmark);
    if (resources_->startAccessing(resolved.path)) token.paths_.push_back(resolved.path);
    if (resolved.isStale) token.refreshed_.insert_or_assign(path, resources_->makeBookmark(resolved.path));
}

}  // namespace dorvane
