// SPDX-License-Identifier: Apache-2.0
#include "core/VMAccess.h"

namespace dorvane {

VMAccess::Token VMAccess::begin(VMRecord& vm) {
    if (!vm.bookmarksByPath) return {};
    auto token = bookmarks_.beginAccess(*vm.bookmarksByPath);
    for (const auto& [path, bookmark] : token.refreshedBookmarks()) vm.setBookmark(bookmark, path);
    return token;
}

void VMAccess::open(VMRecord& vm) {
    close(vm.id);
    open_.emplace(vm.id, begin(vm));
}

}  // namespace dorvane
