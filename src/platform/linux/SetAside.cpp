// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SetAside.h"

#include <fcntl.h>

#include <cstdio>

namespace dorvane {

Path setAside(const Path& path) {
    for (int number = 1;; ++number) {
        Path aside = path;
        aside += number == 1 ? ".damaged" : ".damaged-" + std::to_string(number);
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) return aside;
        if (errno != EEXIST) throw FileError("set aside", path, errno);
    }
}

}  // namespace dorvane
