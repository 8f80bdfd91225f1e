// SPDX-License-Identifier: Apache-2.0
#include "snapshots/FaultInjection.h"

#include <fcntl.h>
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

/// Whether this is the step.
bool isDue() {
    if (stepsLeft.load() <= 0 || --stepsLeft != 0) return false;
    if (kind == FaultKind::kill) ::kill(::getpid(), SIGKILL);
    return true;
}

int errorNumber() { return kind == FaultKind::fullDisk ? ENOSPC : EIO; }

}  // namespace

void Faults::arm(int step, FaultKind which) {
    kind = which;
    stepsLeft = step;
}

bool Faults::disarm() { return stepsLeft.exchange(0) <= 0; }

void Faults::pass() {
    if (isDue()) throw DorvaneError(DorvaneError::Case::vmSnapshotFailed, "injected");
}

bool Faults::passSystemCall() {
    if (!isDue()) return true;
    errno = errorNumber();
    return false;
}

}  // namespace dorvane::test

// The program's own definitions stand before the C library's for every library in the process. A child that
// is about to become another program comes through here as well, so nothing but the call itself is done.
extern "C" {

int rename(const char* from, const char* to) noexcept {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    return static_cast<int>(::syscall(SYS_rename, from, to));
}

int mkdir(const char* path, mode_t mode) noexcept {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    return static_cast<int>(::syscall(SYS_mkdir, path, mode));
}

int unlink(const char* path) noexcept {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    return static_cast<int>(::syscall(SYS_unlink, path));
}

int unlinkat(int directory, const char* path, int flags) noexcept {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    return static_cast<int>(::syscall(SYS_unlinkat, directory, path, flags));
}

int remove(const char* path) noexcept {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    const auto result = ::syscall(SYS_unlink, path);
    if (result == 0 || errno != EISDIR) return static_cast<int>(result);
    return static_cast<int>(::syscall(SYS_rmdir, path));
}

int fsync(int descriptor) {
    if (!dorvane::test::Faults::passSystemCall()) return -1;
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}
}
