// SPDX-License-Identifier: Apache-2.0
// A file system of its own with little room, for tests of full disks and of moves between disks.
#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class SmallDisk {
  public:
    SmallDisk()
        : isMounted_(::mount("tmpfs", folder_.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=256k") ==
                     0) {}
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() {
        if (isMounted_) ::umount2(folder_.path().c_str(), MNT_DETACH);
    }

    bool isMounted() const { return isMounted_; }
    const std::filesystem::path& path() const { return folder_.path(); }
    std::filesystem::path operator/(const std::string& name) const { return folder_ / name; }

  private:
    TemporaryDirectory folder_;
    bool isMounted_;
};

#define SKIP_UNLESS_MOUNTED(disk) \
    if (!(disk).isMounted()) GTEST_SKIP() << "mounting a small disk needs root and a kernel that lets it"

}  // namespace dorvane::test
