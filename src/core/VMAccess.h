// SPDX-License-Identifier: Apache-2.0
// Access to the paths that the user chose for a machine.
#pragma once

#include <map>

#include "core/SecurityScopedBookmarkStore.h"

namespace dorvane {

/// Main thread only.
class VMAccess {
  public:
    using Token = SecurityScopedBookmarkStore::AccessToken;

    explicit VMAccess(SecurityScopedBookmarkStore& bookmarks) : bookmarks_(bookmarks) {}

    /// Access for one operation; it ends with the token. Bookmarks that had gone stale are renewed in the
    /// record, to be kept with its next save.
    [[nodiscard]] Token begin(VMRecord& vm);
    /// Access for as long as the machine runs: until `close`, or until opened anew.
    void open(VMRecord& vm);
    void close(const UUID& vmID) { open_.erase(vmID); }

  private:
    SecurityScopedBookmarkStore& bookmarks_;
    std::map<UUID, Token> open_;
};

}  // namespace dorvane
