// SPDX-License-Identifier: Apache-2.0
#include "runtime/Files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "runtime/ReadSource.h"
#include "runtime/Sockets.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

TEST(Files, refusesWhatIsNoRegularFileWithoutBlocking) {
    const TemporaryDirectory folder;
    ::mkfifo((folder / "fifo").c_str(), 0600);
    truncateFile(folder / "huge", 1ULL << 31);
    for (const auto* name : {"fifo", "", "huge", "missing"})
        EXPECT_THROW(readFile(folder / name), FileError) << name;
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

TEST(Sockets, pathLimitIsExactAndNothingIsTruncated) {
    const TemporaryDirectory folder;
    const auto base = (folder / "").string();
    const std::string fits = base + std::string(maximumSocketPathBytes - base.size(), 's');
    const auto listener = listenUnixSocket(fits);
    EXPECT_TRUE(connectUnixSocket(fits));
    EXPECT_THROW(connectUnixSocket(fits + "s"), POSIXError);
    EXPECT_THROW(listenUnixSocket(fits + "s"), POSIXError);
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
