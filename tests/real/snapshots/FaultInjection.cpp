// SPDX-License-Identifier: Apache-2.0
#include "snapshots/FaultInjection.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "core/DorvaneError.h"

namespace dorvane::test {
namespace {

std::atomic<int> stepsLeft{0};
std::atomic<FaultKind> kind{FaultKind::error};

template <typename... Arguments>
int passOn(long number, Arguments... arguments) {
    if (!Faults::isDue()) return static_cast<int>(::syscall(number, arguments...));
    errno = EIO;
    return -1;
}

}  // namespace

void Faults::arm(int step, FaultKind which) {
    kind = which;
    stepsLeft = step;
}

bool Faults::disarm() { return stepsLeft.exchange(0) <= 0; }

bool Faults::isDue() {
    if (stepsLeft.load() <= 0 || --stepsLeft != 0) return false;
    if (kind == FaultKind::kill) ::kill(::getpid(), SIGKILL);
    return true;
}

void Faults::pass() {
    if (isDue()) throw DorvaneError(DorvaneError::Case::vmSnapshotFailed, "injected");
}

}  // namespace dorvane::test

// The program's own definitions stand before the C library's for every library in the process. A child that
// is about to become another program comes through here as well, so nothing but the call itself is done.
extern "C" {
using dorvane::test::passOn;

int rename(const char* from, const char* to) noexcept { return passOn(SYS_rename, from, to); }
int mkdir(const char* path, mode_t mode) noexcept { return passOn(SYS_mkdir, path, mode); }
int unlink(const char* path) noexcept { return passOn(SYS_unlink, path); }
int unlinkat(int directory, const char* path, int flags) noexcept {
    return passOn(SYS_unlinkat, directory, path, flags);
}
int remove(const char* path) noexcept {
    const int result = passOn(SYS_unlink, path);
    if (result == 0 || errno != EISDIR) return result;
    return static_cast<int>(::syscall(SYS_rmdir, path));
}
int fsync(int descriptor) { return passOn(SYS_fsync, descriptor); }
}
