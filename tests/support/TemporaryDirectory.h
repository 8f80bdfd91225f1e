// SPDX-License-Identifier: Apache-2.0
// A folder of the test's own, removed with everything in it.
#pragma once

#include <filesystem>
#include <string>

namespace dorvane::test {

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace dorvane::test
