// SPDX-License-Identifier: Apache-2.0
#include "qemu/UnixSocketPeer.h"

#include <csignal>

#include "runtime/Sockets.h"
#include "runtime/Task.h"

namespace dorvane {

UnixSocketPeer::UnixSocketPeer(const Processes& processes, Clock& clock, Signaller signaller)
    : processes_(processes), clock_(clock), signaller_(std::move(signaller)) {}

UnixSocketPeer::Signaller UnixSocketPeer::systemSignaller() {
    return [](int pid, int signal) { return ::kill(pid, signal) == 0; };
}

UnixSocketPeer::Probe UnixSocketPeer::probe(const std::string& path) const {
    try {
        std::error_code failure;
        if (!std::filesystem::exists(path, failure) && !failure) return Probe::absent();
        const auto fd = connectUnixSocketWithoutWaiting(path);
        const auto pid = processes_.peerPID(fd.get()).value_or(0);
        return pid >= 1 ? Probe::listening(pid) : Probe::unknown();
    } catch (const POSIXError& error) {
        const bool nobody = error.number() == ECONNREFUSED || error.number() == ENOENT;
        return nobody ? Probe::absent() : Probe::unknown();
    }
}

std::optional<std::string> UnixSocketPeer::processName(int pid) const { return processes_.name(pid); }

bool UnixSocketPeer::isStill(int pid, const std::string& prefix) const {
    const auto name = processName(pid);
    return name && name->starts_with(processes_.shortened(prefix));
}

Task<bool> UnixSocketPeer::terminate(int pid, std::string expectingNamePrefix, Duration grace) const {
    constexpr auto interval = milliseconds(100);
    constexpr auto roundsAfterKill = 20;
    co_await ignoreCancellation();
    if (!isStill(pid, expectingNamePrefix)) co_return false;
    signaller_(pid, SIGTERM);
    const auto deadline = clock_.now() + grace;
    while (clock_.now() < deadline) {
        if (!signaller_(pid, 0)) co_return true;
        co_await clock_.sleep(interval);
    }
    if (isStill(pid, expectingNamePrefix)) signaller_(pid, SIGKILL);
    for (int round = 0; round < roundsAfterKill; ++round) {
        if (!signaller_(pid, 0)) co_return true;
        co_await clock_.sleep(interval);
    }
    co_return false;
}

}  // namespace dorvane
