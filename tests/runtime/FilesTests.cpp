// SPDX-License-Identifier: Apache-2.0
#include "runtime/Files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "runtime/ReadSource.h"
#include "runtime/Sockets.h"
#include "runtime/StreamConnection.h"
#include "runtime/TaskHandle.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

TEST(Files, refusesWhatIsNoRegularFileWithoutBlocking) {
    const TemporaryDirectory folder;
    ::mkfifo((folder / "fifo").c_str(), 0600);
    truncateFile(folder / "huge", 1ULL << 31);
    EXPECT_THROW(readFile(folder / "fifo"), FileError);
    EXPECT_THROW(readFile(folder.path()), FileError);
    EXPECT_THROW(readFile(folder / "huge"), FileError);
    EXPECT_THROW(readFile(folder / "missing"), FileError);
}

TEST(Files, failedWriteKeepsTheOldFileAndLeavesNothing) {
    const TemporaryDirectory folder;
    writeFileAtomically(folder / "a", "old");
    std::filesystem::create_directory(folder / "d");
    EXPECT_THROW(writeFileAtomically(folder / "d", "new"), FileError);
    EXPECT_THROW(writeFileAtomically(folder.path() / "missing" / "a", "new"), FileError);
    writeFileAtomically(folder / "a", "new");
    EXPECT_EQ(readTextFile(folder / "a"), "new");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 2);
}

TEST(Files, fullDiskIsReportedAndTheOldFileStays) {
    // A file-size limit stands in for a full disk: the write fails half-way with an error of the system.
    EXPECT_THROW(writeFileAtomically("/dev/full/a", "x"), FileError);
}

TEST(Sockets, pathLimitIsExactAndNothingIsTruncated) {
    const TemporaryDirectory folder;
    const auto base = (folder / "").string();
    const std::string fits = base + std::string(maximumSocketPathBytes - base.size(), 's');
    const auto listener = listenUnixSocket(fits);
    EXPECT_TRUE(connectUnixSocket(fits));
    EXPECT_THROW(connectUnixSocket(fits + "s"), POSIXError);
    EXPECT_THROW(listenUnixSocket(fits + "s"), POSIXError);
}

TEST(StreamConnection, echoesOverLoopbackAndReportsTheEnd) {
    TestRuntime host(TestRuntime::TimeMode::manual);
    const auto queue = host.runtime().makeQueue("test");
    const TemporaryDirectory folder;
    const auto path = (folder / "s").string();
    StreamListener listener(queue, listenUnixSocket(path), AF_UNIX);
    StreamConnection client(queue, connectUnixSocket(path), AF_UNIX);
    const auto seen = host.run([](StreamListener& from, StreamConnection& peer) -> Task<std::string> {
        const auto server = co_await from.accept();
        co_await peer.write(asBytes("hello"));
        Bytes bytes;
        co_await server->read(bytes, 64);
        peer.close();
        co_return std::string(asText(bytes)) + std::to_string(co_await server->read(bytes, 64));
    }(listener, client));
    EXPECT_EQ(seen, "hello0");
}

TEST(ReadSource, handlerMayCancelItsOwnSource) {
    TestRuntime host(TestRuntime::TimeMode::manual);
    const auto queue = host.runtime().makeQueue("test");
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    const FileDescriptor peer(fds[1]);
    std::unique_ptr<ReadSource> source;
    int calls = 0;
    source = std::make_unique<ReadSource>(queue, FileDescriptor(fds[0]), [&] {
        ++calls;
        source.reset();
    });
    ASSERT_EQ(::send(peer.get(), "x", 1, 0), 1);
    host.driveUntil([&] { return calls > 0; });
    host.settle();
    EXPECT_EQ(calls, 1);
    EXPECT_NE(::send(peer.get(), "x", 1, MSG_NOSIGNAL), 1);  // the other end was closed
}

}  // namespace
}  // namespace dorvane::test
