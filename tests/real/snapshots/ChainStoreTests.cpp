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
using testing::HasSubstr;
using testing::IsEmpty;

class ChainStore : public testing::Test {
  protected:
    const QEMURuntimeResources resources = test::realQEMU();
    const test::TemporaryDirectory storage;
    const test::LogCapture log;
    const ChainDisks disks{storage / "Machine", resources};
    const SnapshotChainStore& store = disks.store;
    const VMBundle& bundle = disks.bundle;

    static std::string liveForm(char letter) { return "Snapshots/" + frozen(letter); }
    static std::string frozenForm(char letter) { return "../" + frozen(letter); }
    static std::string frozen(char letter) { return ChainDisks::id(letter).text() + "/disk.qcow2"; }
    std::string backing(const Path& image) const { return disks.tool.backingPath(image).value_or("(none)"); }
    /// All good: images, headers, nothing half done.
    void expectSound(const ChainDisks& of) const {
        of.expectSoundImages();
        EXPECT_THAT(of.leftovers(), IsEmpty());
        const auto before = of.contents();
        EXPECT_TRUE(SnapshotChainRepair(of.store).run(of.bundle));
        EXPECT_EQ(of.contents(), before);
    }
};

TEST_F(ChainStore, CapturesKeepEveryContentAndPointAtEachOther) {
    disks.create();
    EXPECT_EQ(store.depth(bundle), 0);
    ChainDisks::Contents expected;
    for (const char letter : {'A', 'B', 'C'}) {
        disks.guestWrites(letter);
        expected[ChainDisks::id(letter).text()] = disks.contents().at("live");
        store.capture(bundle, ChainDisks::id(letter));
    }
    disks.guestWrites('1');
    expected["live"] = disks.contents().at("live");
    EXPECT_EQ(disks.contents(), expected);
    EXPECT_EQ(
        std::set<std::string>({expected["live"], expected[ChainDisks::id('A').text()],
                               expected[ChainDisks::id('B').text()], expected[ChainDisks::id('C').text()]})
            .size(),
        4U)
        << "the contents must differ, or nothing here means anything";
    EXPECT_EQ(backing(disks.live()), liveForm('C'));
    EXPECT_EQ(backing(disks.disk(ChainDisks::id('C'))), frozenForm('B'));
    EXPECT_EQ(backing(disks.disk(ChainDisks::id('B'))), frozenForm('A'));
    EXPECT_EQ(backing(disks.disk(ChainDisks::id('A'))), "(none)");
    const auto chain = parseJSON(disks.img({"info", "--backing-chain", "--output=json", disks.live()}));
    EXPECT_EQ(chain.size(), 4U);
    for (const auto& layer : chain) EXPECT_FALSE(layer.value("backing-filename", "").starts_with('/'));
    EXPECT_EQ(store.depth(bundle), 3);
    expectSound(disks);
}

TEST_F(ChainStore, ADeletedSnapshotTakesNothingElseWithIt) {
    disks.buildLine();
    disks.addBranches();
    const auto original = disks.contents();
    ASSERT_EQ(original.size(), 7U);
    for (const char letter : {'A', 'B', 'C', 'D', 'E', 'F'}) {
        SCOPED_TRACE(letter);
        const ChainDisks copy(storage / std::string(1, letter), resources);
        fs::copy(bundle.directoryURL, copy.bundle.directoryURL, fs::copy_options::recursive);
        store.deleteSnapshot(copy.bundle, ChainDisks::id(letter));
        auto expected = original;
        expected.erase(ChainDisks::id(letter).text());
        EXPECT_EQ(copy.contents(), expected);
        EXPECT_FALSE(fs::exists(copy.disk(ChainDisks::id(letter)).parent_path()));
        expectSound(copy);
        EXPECT_EQ(backing(copy.live()), liveForm(letter == 'F' ? 'D' : 'F'));
    }
    // One after the other, the live disk is left alone in the end.
    for (const char letter : {'B', 'D', 'A', 'F', 'C', 'E'}) {
        store.deleteSnapshot(bundle, ChainDisks::id(letter));
        auto expected = original;
        for (const auto& [name, digest] : disks.contents()) EXPECT_EQ(digest, expected[name]) << name;
    }
    EXPECT_EQ(backing(disks.live()), "(none)");
    expectSound(disks);
}

TEST_F(ChainStore, RestoresFlattensAndMoves) {
    disks.buildLine();
    const auto original = disks.contents();
    for (int time = 0; time < 2; ++time) {
        store.restore(bundle, ChainDisks::id('B'));
        EXPECT_EQ(disks.contents().at("live"), original.at(ChainDisks::id('B').text()));
        EXPECT_EQ(backing(disks.live()), liveForm('B'));
        disks.guestWrites('2');
    }
    const auto written = disks.contents();
    const ChainDisks moved(storage / "Else where, 另一处", resources);
    fs::rename(bundle.directoryURL, moved.bundle.directoryURL);
    EXPECT_EQ(moved.contents(), written);
    store.deleteSnapshot(moved.bundle, ChainDisks::id('B'));
    store.flattenLiveDisk(moved.bundle);
    EXPECT_EQ(backing(moved.live()), "(none)");
    EXPECT_EQ(moved.contents().at("live"), written.at("live"));
    store.flattenLiveDisk(moved.bundle);
    expectSound(moved);
    fs::remove_all(moved.bundle.snapshotsDirectory());
    EXPECT_EQ(moved.contents().at("live"), written.at("live"));
}

TEST_F(ChainStore, ACircleEndsEveryWalk) {
    disks.buildLine();
    disks.tool.retargetBackingUnsafe(disks.disk(ChainDisks::id('A')), frozenForm('C'));
    EXPECT_EQ(store.depth(bundle), 65);
    EXPECT_THROW(store.capture(bundle, ChainDisks::id('0')), DorvaneError);
    EXPECT_THROW(store.restore(bundle, ChainDisks::id('B')), DorvaneError);
    EXPECT_THROW(store.deleteSnapshot(bundle, ChainDisks::id('C')), DorvaneError);
    EXPECT_THROW(store.flattenLiveDisk(bundle), DorvaneError);
    EXPECT_FALSE(SnapshotChainRepair(store).run(bundle));
    disks.tool.retargetBackingUnsafe(disks.disk(ChainDisks::id('A')), std::nullopt);
    EXPECT_EQ(store.depth(bundle), 3);
    expectSound(disks);
}

/// An emulator that has the system disk open, as the engine starts it.
class RunningEmulator {
  public:
    RunningEmulator(const QEMURuntimeResources& resources, const Path& disk, const Path& socket)
        : child_(resources, {"-machine", "none", "-nodefaults", "-display", "none", "-qmp",
                             "unix:" + socket.string() + ",server=on,wait=off", "-drive",
                             "if=none,id=sysdisk,node-name=sysroot,format=qcow2,file=" + disk.string()}),
          connection_(std::make_shared<QMPConnection>(time_.runtime())) {
        time_.run(connection_->connect(socket.string(), seconds(20)));
    }

    void execute(std::string command, JSON arguments) {
        time_.run(connection_->execute(std::move(command), std::move(arguments), seconds(20)));
    }
    void write(const char* pattern) {
        execute("human-monitor-command",
                {{"command-line", std::string("qemu-io sysdisk \"write -P ") + pattern + " 0 64k\""}});
        execute("human-monitor-command", {{"command-line", "qemu-io sysdisk flush"}});
    }
    void switchTo(const Path& overlay, const std::string& node) {
        const JSON file{{"driver", "file"}, {"filename", overlay.string()}};
        execute("blockdev-add",
                {{"driver", "qcow2"}, {"node-name", node}, {"file", file}, {"backing", nullptr}});
    }

  private:
    test::RealTime time_;
    test::RealQEMUChild child_;
    std::shared_ptr<QMPConnection> connection_;
};

TEST_F(ChainStore, ARunningEmulatorGoesOnWithTheMovedDisk) {
    disks.create();
    std::string top = "sysroot";
    {
        RunningEmulator emulator(resources, disks.live(), storage / "q.sock");
        for (const char letter : {'A', 'B'}) {
            emulator.write(letter == 'A' ? "0x41" : "0x42");
            const auto captured = store.captureWhileRunning(bundle, ChainDisks::id(letter));
            const auto node = std::string("snap") + letter;
            emulator.switchTo(disks.live(), node);
            if (captured.parentRewrite)
                emulator.execute("change-backing-file",
                                 {{"device", "sysdisk"},
                                  {"image-node-name", top},
                                  {"backing-file", captured.parentRewrite->newBacking}});
            emulator.execute("blockdev-snapshot", {{"node", top}, {"overlay", node}});
            top = node;
        }
        emulator.write("0x43");
        // A capture that the emulator didn't follow can be taken back.
        const auto captured = store.captureWhileRunning(bundle, ChainDisks::id('C'));
        EXPECT_EQ(captured.parentID, ChainDisks::id('B'));
        store.uncaptureRunning(bundle, ChainDisks::id('C'), captured.parentID);
        emulator.write("0x44");
        EXPECT_THROW(store.capture(bundle, ChainDisks::id('C')), DorvaneError) << "the disk is in use";
        emulator.write("0x45");
    }
    EXPECT_EQ(store.depth(bundle), 2);
    expectSound(disks);
    const auto firstByte = [&](const Path& image) {
        disks.img({"convert", "-O", "raw", image.string(), (storage / "raw").string()});
        return static_cast<int>(readFile(storage / "raw").front());
    };
    EXPECT_EQ(firstByte(disks.disk(ChainDisks::id('A'))), 0x41);
    EXPECT_EQ(firstByte(disks.disk(ChainDisks::id('B'))), 0x42);
    EXPECT_EQ(firstByte(disks.live()), 0x45);
}

}  // namespace
}  // namespace dorvane
