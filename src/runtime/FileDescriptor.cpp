// SPDX-License-Identifier: Apache-2.0
#include "runtime/FileDescriptor.h"

#include <unistd.h>

namespace dorvane {

void FileDescriptor::reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace dorvane
