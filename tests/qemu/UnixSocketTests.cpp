// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <thread>

#include "qemu/UnixFDPassing.h"
#include "qemu/UnixSocketPeer.h"
#include "runtime/Sockets.h"
#include "support/FakeProcesses.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane {
namespace {

using Probe = UnixSocketPeer::Probe;
using testing::ElementsAre;

std::pair<FileDescriptor, FileDescriptor> socketPair() {
    std::array<int, 2> fds{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) != 0) throw POSIXError(errno);
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

struct Received {
    Bytes bytes;
    std::vector<FileDescriptor> descriptors;
};

Received receive(int fd, std::size_t count) {
    Received result;
    while (result.bytes.size() < count) {
        Bytes bytes(65536), control(CMSG_SPACE(16 * sizeof(int)));
        iovec piece{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const auto got = ::recvmsg(fd, &message, 0);
        if (got <= 0) throw POSIXError(errno);
        result.bytes.insert(result.bytes.end(), bytes.begin(), bytes.begin() + got);
        for (auto& one : UnixFDPassing::receivedFDs(message)) result.descriptors.push_back(std::move(one));
    }
    return result;
}

ino_t inodeOf(int fd) {
    struct stat information {};
    ::fstat(fd, &information);
    return information.st_ino;
}

TEST(UnixFDPassing, ALongSendInPiecesDeliversDescriptorsOnceInOrder) {
    const auto [sender, receiver] = socketPair();
    const auto [first, second] = socketPair();
    Bytes data(5 << 20);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7 / 3);
    const std::array descriptors{second.get(), first.get()};
    Received received;
    std::thread reader([&, fd = receiver.get()] { received = receive(fd, data.size()); });
    UnixFDPassing::sendAll(sender.get(), data, descriptors);
    reader.join();
    EXPECT_EQ(received.bytes, data);
    ASSERT_EQ(received.descriptors.size(), 2U);
    EXPECT_EQ(inodeOf(received.descriptors[0].get()), inodeOf(second.get()));
    EXPECT_EQ(inodeOf(received.descriptors[1].get()), inodeOf(first.get()));
    for (const auto& fd : received.descriptors) EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(first.get(), F_GETFD), -1) << "the caller's own stays open";
}

TEST(UnixFDPassing, FailuresAreErrnos) {
    const auto numberOf = [](int fd, std::span<const int> descriptors = {}) {
        try {
            UnixFDPassing::sendAll(fd, Bytes(4 << 20), descriptors, milliseconds(10));
        } catch (const POSIXError& error) {
            return error.number();
        }
        return 0;
    };
    auto [sender, receiver] = socketPair();
    EXPECT_EQ(numberOf(sender.get()), EAGAIN) << "a peer that never reads";
    receiver.reset();
    EXPECT_EQ(numberOf(sender.get()), EPIPE);
    EXPECT_EQ(numberOf(100000), EBADF);
    const auto [other, peer] = socketPair();
    EXPECT_EQ(numberOf(other.get(), std::array{100000}), EBADF);
}

/// Control data as a peer could lay it out.
struct ControlData {
    Bytes bytes = {};

    void add(int type, std::span<const int> payload, std::size_t claimedExtra = 0) {
        const auto at = bytes.size();
        bytes.resize(at + CMSG_SPACE(payload.size_bytes()));
        const cmsghdr header{CMSG_LEN(payload.size_bytes()) + claimedExtra, SOL_SOCKET, type};
        std::memcpy(&bytes[at], &header, sizeof header);
        std::ranges::copy(std::as_bytes(payload),
                          std::as_writable_bytes(std::span(bytes)).begin() + at + CMSG_LEN(0));
    }
    std::vector<FileDescriptor> read() {
        msghdr message{};
        message.msg_control = bytes.data();
        message.msg_controllen = bytes.size();
        return UnixFDPassing::receivedFDs(message);
    }
};

TEST(UnixFDPassing, WalksControlDataWithoutLeavingIt) {
    const auto duplicate = [] { return ::fcntl(STDERR_FILENO, F_DUPFD, 50); };
    const std::array first{duplicate(), duplicate()};
    const std::array second{duplicate()};
    ControlData two;
    two.add(SCM_RIGHTS, first);
    two.add(SO_TIMESTAMP, std::array{1, 2});
    two.add(SCM_RIGHTS, second);
    const auto found = two.read();
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0].get(), first[0]);
    EXPECT_EQ(found[1].get(), first[1]);
    EXPECT_EQ(found[2].get(), second[0]);

    EXPECT_TRUE(ControlData().read().empty());
    ControlData shorter;
    shorter.add(SCM_RIGHTS, {});
    EXPECT_TRUE(shorter.read().empty());
    shorter.bytes.resize(sizeof(cmsghdr) - 1);
    EXPECT_TRUE(shorter.read().empty());
    ControlData overlong;
    overlong.add(SCM_RIGHTS, std::array{duplicate()}, 4096);
    overlong.bytes.resize(CMSG_LEN(sizeof(int)));
    EXPECT_EQ(overlong.read().size(), 1U);
}

struct PeerScene {
    test::TestRuntime test;
    test::FakeProcesses processes;
    test::TemporaryDirectory directory;
    UnixSocketPeer peer{processes, test.clock(),
                        [this](int pid, int signal) { return processes.signal(pid, signal); }};

    bool terminate(int pid, const std::string& prefix) {
        return test.run(peer.terminate(pid, prefix, seconds(5)));
    }
    Duration elapsed() { return test.clock().now() - Instant{}; }
};

TEST(UnixSocketPeer, ProbesWhoListens) {
    PeerScene scene;
    const auto path = (scene.directory / "s.sock").string();
    EXPECT_EQ(scene.peer.probe(path), Probe::absent());
    {
        const auto listener = listenUnixSocket(path, 1);
        EXPECT_EQ(scene.peer.probe(path), Probe::unknown()) << "the kernel told no process";
        scene.processes.peer = 4711;
        EXPECT_EQ(scene.peer.probe(path), Probe::listening(4711));
        EXPECT_EQ(scene.peer.probe(path), Probe::unknown()) << "the backlog is full, and nobody waits";
    }
    EXPECT_EQ(scene.peer.probe(path), Probe::absent());
    EXPECT_TRUE(std::filesystem::exists(path)) << "a stale file is the caller's to remove";
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(scene.peer.probe(path), Probe::absent()) << "what is no socket refuses";
    EXPECT_EQ(scene.peer.probe(path + "/" + std::string(100, 's')), Probe::absent());
}

TEST(UnixSocketPeer, AnOverlongPathIsNeverCut) {
    PeerScene scene;
    const auto base = scene.directory.path().string() + "/";
    const auto longest = base + std::string(103 - base.size(), 's');
    const auto listener = listenUnixSocket(longest);
    writeFileAtomically(longest + "t", "");
    scene.processes.peer = 1;
    EXPECT_EQ(scene.peer.probe(longest), Probe::listening(1));
    EXPECT_EQ(scene.peer.probe(longest + "t"), Probe::unknown());
}

TEST(UnixSocketPeer, TerminatesOnlyWhatStillHasTheName) {
    PeerScene scene;
    scene.processes.table = {
        {10, {"qemu-system-aar"}}, {11, {"bash"}}, {12, {"qemu-system-aar", true}}, {13, {"swtpm", true}}};

    EXPECT_TRUE(scene.terminate(10, "qemu-system-aarch64"));
    EXPECT_FALSE(scene.terminate(11, "qemu-system"));
    EXPECT_FALSE(scene.terminate(99, "qemu-system"));
    EXPECT_THAT(scene.processes.signals, ElementsAre(std::pair(10, SIGTERM)));
    EXPECT_EQ(scene.elapsed(), Duration{});

    scene.processes.signals.clear();
    EXPECT_TRUE(scene.terminate(12, "qemu-system"));
    EXPECT_THAT(scene.processes.signals, ElementsAre(std::pair(12, SIGTERM), std::pair(12, SIGKILL)));
    EXPECT_EQ(scene.elapsed(), seconds(5));

    scene.processes.signals.clear();
    const auto rename = scene.test.clock().schedule(scene.test.runtime().main.executor(), seconds(1),
                                                    [&] { scene.processes.table[13].name = "reused"; });
    EXPECT_FALSE(scene.terminate(13, "swtpm"));
    EXPECT_THAT(scene.processes.signals, ElementsAre(std::pair(13, SIGTERM)));
    EXPECT_EQ(scene.elapsed(), seconds(5 + 5 + 2));
}

TEST(UnixSocketPeer, ACancellationDoesNotStopTheStopping) {
    PeerScene scene;
    scene.processes.table = {{12, {"qemu-system-aar", true}}};
    auto handle = spawn(
        scene.test.runtime().main.executor(),
        [](PeerScene& s) -> Task<void> { co_await s.peer.terminate(12, "qemu-system", seconds(5)); }(scene),
        "test");
    scene.test.driveUntil([&] { return !scene.processes.signals.empty(); });
    handle.cancel();
    scene.test.driveUntil([&] { return handle.isFinished(); });
    EXPECT_EQ(scene.processes.signals.back(), std::pair(12, SIGKILL));
}

}  // namespace
}  // namespace dorvane
