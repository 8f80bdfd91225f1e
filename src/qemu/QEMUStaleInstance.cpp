// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUStaleInstance.h"

#include "qemu/QMPConnection.h"

namespace dorvane {
namespace {

constexpr auto connectTimeout = seconds(2.0);
constexpr auto staleCommandTimeout = seconds(10.0);
constexpr auto goneTimeout = seconds(4.0);
constexpr auto goneInterval = milliseconds(200);
constexpr auto staleTerminationGrace = seconds(5.0);

}  // namespace

Task<void> QEMUStaleInstance::clear(QEMURuntimeDirectory directory) const {
    const auto socket = directory.qmpSocket();
    if (!fileExists(socket)) co_return;
    // Asked first: a QEMU that hangs has room for few connections, and a socket that nobody listens on needs
    // no wait for an answer.
    const UnixSocketPeer peer(processes_, runtime_.clock);
    const auto listener = peer.probe(socket.string());
    bool isGone = listener.kind == UnixSocketPeer::Probe::Kind::absent;
    if (!isGone) isGone = co_await stopOverQMP(socket);
    if (!isGone) co_await stopByPID(socket, listener);
    // Also a stranger's: the new QEMU needs the name, and nobody may reach the old listener in its place.
    directory.removeLeftoverSockets();
}

Task<bool> QEMUStaleInstance::stopOverQMP(Path socket) const {
    const auto connection = std::make_shared<QMPConnection>(runtime_);
    try {
        co_await connection->connect(socket.string(), connectTimeout);
    } catch (const QMPConnection::ConnectionError&) {
        co_return false;
    }
    logger_.info("发现上次会话遗留的 QEMU 仍在占用这台 VM,先把它停掉");
    for (const auto* command : {"system_powerdown", "quit"}) {
        try {
            co_await connection->execute(command, nullptr, staleCommandTimeout);
        } catch (const QMPConnection::ConnectionError&) {
        }
    }
    co_await connection->close();
    std::function<bool()> isGone = [socket] { return !fileExists(socket); };
    const bool wasRemoved = co_await pollUntil(runtime_.clock, goneTimeout, goneInterval, std::move(isGone));
    co_return wasRemoved;
}

Task<void> QEMUStaleInstance::stopByPID(Path socket, UnixSocketPeer::Probe listener) const {
    if (listener.kind == UnixSocketPeer::Probe::Kind::unknown) {
        logger_.error("%{public}s 上有进程在听但认不出是谁,保留 socket", socket.string());
        co_return;
    }
    logger_.info("遗留的 QEMU(pid %{public}d)不响应 QMP,按 pid 停掉", listener.pid);
    const UnixSocketPeer peer(processes_, runtime_.clock);
    co_await peer.terminate(listener.pid, "qemu-system", staleTerminationGrace);
}

}  // namespace dorvane
