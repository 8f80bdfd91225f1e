// SPDX-License-Identifier: Apache-2.0
// Access to paths that the user chose, kept across runs.
#pragma once

#include "core/VMRecord.h"

namespace dorvane {

/// The platform's scoped permissions. A host without them has no implementation: paths are simply reachable
/// there.
class ScopedResources {
  public:
    virtual ~ScopedResources() = default;
    struct Resolved {
        Path path;
        bool isStale = false;
    };
    /// Both throw when the platform refuses.
    virtual Resolved resolve(ByteView bookmark) = 0;
    virtual Bytes makeBookmark(const Path& path) = 0;
    /// `startAccessingSecurityScopedResource` and its counterpart.
    virtual bool startAccessing(const Path& path) = 0;
    virtual void stopAccessing(const Path& path) = 0;
};

/// Main thread only.
class SecurityScopedBookmarkStore {
  public:
    /// Access that ends with the token. It must not outlive the platform's half.
    class AccessToken {
      public:
        AccessToken() = default;
        AccessToken(AccessToken&& other) noexcept;
        AccessToken& operator=(AccessToken&& other) noexcept;
        ~AccessToken() { end(); }

        /// Ending twice does nothing.
        void end() noexcept;
        /// New bytes for bookmarks that had gone stale, by stored path; the holder keeps them in place of the
        /// old.
        const Bookmarks& refreshedBookmarks() const { return refreshed_; }

      private:
        friend class SecurityScopedBookmarkStore;
        ScopedResources* resources_ = nullptr;
        std::vector<Path> paths_;
        Bookmarks refreshed_;
    };

    /// `resources` is null on a host without scoped permissions; every token is empty then.
    explicit SecurityScopedBookmarkStore(ScopedResources* resources = nullptr) : resources_(resources) {}

    /// A bookmark that doesn't resolve is logged and passed over: its path may be reachable anyway.
    AccessToken beginAccess(const Bookmarks& bookmarksByPath);

  private:
    void open(AccessToken& token, const std::string& path, ByteView bookmark);

    ScopedResources* resources_;
};

}  // namespace dorvane
