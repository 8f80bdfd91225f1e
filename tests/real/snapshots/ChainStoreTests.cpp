// SPDX-License-Identifier: Apache-2.0
// The chain of layers through the real disk tool, and through an emulator that has the disk open.
#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "qemu/QMPConnection.h"
#include "snapshots/ChainScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using test::ChainDisks;
using testing::IsEmpty;

class ChainStore : public testing::Test {
  protected:
    const test::TemporaryDirectory storage;
    const test::LogCapture log;
    const ChainDisks disks{storage / "Machine"};
    const SnapshotChainStore& store = disks.store;
    const VMBundle& bundle = disks.bundle;

    static std::string liveForm(char letter) {
        return "Snapshots/" + ChainDisks::id(letter).text() + "/disk.qcow2";
    }
    static std::string backing(const ChainDisks& of) {
        return of.tool.backingPath(of.live()).value_or("(none)");
    }
    /// All good: images, headers, nothing half done.
    void expectSound(const ChainDisks& of) const {
        of.expectSoundImages();
        EXPECT_THAT(of.leftovers(), IsEmpty());
        const auto before = of.contents();
        EXPECT_TRUE(SnapshotChainRepair(of.store).run(of.bundle));
        EXPECT_EQ(of.contents(), before);
    }
};

TEST_F(ChainStore, ADeletedSnapshotTakesNothingElseWithItEvenInAMovedBundle) {
    disks.buildLine();
    disks.addBranches();
    auto expected = disks.contents();
    std::set<std::string> different;
    for (const auto& [name, digest] : expected) different.insert(digest);
    ASSERT_EQ(different.size(), 7U) << "the contents must differ, or nothing here means anything";
    const ChainDisks moved(storage / "Else where, 另一处");
    fs::rename(bundle.directoryURL, moved.bundle.directoryURL);
    EXPECT_EQ(moved.contents(), expected);
    const std::pair<char, std::string> table[] = {{'B', liveForm('F')}, {'F', liveForm('D')},
                                                  {'D', liveForm('A')}, {'A', "(none)"},
                                                  {'C', "(none)"},      {'E', "(none)"}};
    for (const auto& [letter, backingOfLive] : table) {
        SCOPED_TRACE(letter);
        store.deleteSnapshot(moved.bundle, ChainDisks::id(letter));
        expected.erase(ChainDisks::id(letter).text());
        EXPECT_EQ(moved.contents(), expected);
        EXPECT_FALSE(fs::exists(moved.disk(ChainDisks::id(letter)).parent_path()));
        EXPECT_EQ(backing(moved), backingOfLive);
        expectSound(moved);
    }
}

TEST_F(ChainStore, RestoresAfreshEachTimeAndFlattens) {
    disks.buildLine();
    auto expected = disks.contents();
    expected["live"] = expected.at(ChainDisks::id('B').text());
    for (int time = 0; time < 2; ++time) {
        store.restore(bundle, ChainDisks::id('B'));
        EXPECT_EQ(disks.contents(), expected);
        EXPECT_EQ(backing(disks), liveForm('B'));
        disks.guestWrites('2');
    }
    expected = disks.contents();
    for (int time = 0; time < 2; ++time) {
        store.flattenLiveDisk(bundle);
        EXPECT_EQ(disks.contents(), expected);
        EXPECT_EQ(backing(disks), "(none)");
    }
    expectSound(disks);
}

TEST_F(ChainStore, ACaptureThatTheEmulatorDidNotFollowCanBeTakenBack) {
    disks.buildLine();
    const auto socket = (storage / "q.sock").string();
    {
        test::RealTime time;
        // The system disk is open as the engine opens it.
        const test::RealQEMUChild emulator(
            {"-machine", "none", "-nodefaults", "-display", "none", "-qmp",
             "unix:" + socket + ",server=on,wait=off", "-drive",
             "if=none,id=sysdisk,node-name=sysroot,format=qcow2,file=" + disks.live().string()});
        const auto connection = std::make_shared<QMPConnection>(time.runtime());
        time.run(connection->connect(socket, seconds(20)));
        const auto write = [&](const std::string& pattern) {
            for (const auto& command : {"write -P " + pattern + " 0 64k", std::string("flush")}) {
                JSON arguments{{"command-line", "qemu-io sysdisk \"" + command + "\""}};
                time.run(connection->execute("human-monitor-command", std::move(arguments), seconds(20)));
            }
        };
        write("0x43");
        const auto captured = store.captureWhileRunning(bundle, ChainDisks::id('D'));
        EXPECT_EQ(captured.parentID, ChainDisks::id('C'));
        store.uncaptureRunning(bundle, ChainDisks::id('D'), captured.parentID);
        write("0x44");
        EXPECT_THROW(store.capture(bundle, ChainDisks::id('D')), DorvaneError) << "the disk is in use";
        write("0x45");
    }
    EXPECT_EQ(store.depth(bundle), 3);
    expectSound(disks);
    EXPECT_EQ(ChainDisks::rawContent(disks.live()).front(), 0x45);
}

}  // namespace
}  // namespace dorvane
