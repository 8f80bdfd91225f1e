// SPDX-License-Identifier: Apache-2.0
#include "app/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane {

InstanceLock::InstanceLock(const Path& file) {
    std::filesystem::create_directories(file.parent_path());
    fd_ = FileDescriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd_) throw FileError("open", file, errno);
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) throw FileError("lock", file, errno);
        const auto holder = std::string(trimmed(readTextFile(file, 64)));
        throw std::runtime_error(localized(
            "Dorvane is already running on this library (process %@). Use its commands, or stop it first.",
            holder.empty() ? "unknown" : holder));
    }
    const auto pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd_.get(), 0) != 0 || ::pwrite(fd_.get(), pid.data(), pid.size(), 0) < 0)
        throw FileError("write", file, errno);
}

}  // namespace dorvane
