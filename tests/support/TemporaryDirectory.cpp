// SPDX-License-Identifier: Apache-2.0
#include "support/TemporaryDirectory.h"

#include <cstdlib>
#include <stdexcept>

namespace dorvane::test {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "dvnXXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace dorvane::test
