// SPDX-License-Identifier: Apache-2.0
// Switching a running machine's disk to a new top layer, with a QEMU that refuses one command or another.
#include "qemu/QEMUSupervisorScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

struct OverlayScene : test::QEMUSupervisorScene {
    explicit OverlayScene(const Words& words) : QEMUSupervisorScene(words) {
        writeFileAtomically(bundle.qcow2Disk(), "layer 0");
        runtime.linkSystemDisk(bundle);
        supervisor->setRuntimeDirectory(runtime);
        start();
    }
    ~OverlayScene() { stop(); }

    /// Freezes the present layer as the snapshot service does, and has the supervisor follow. The error's
    /// text, empty for success.
    std::string attach(int layer, std::optional<SnapshotParentRewrite> rewrite) {
        const auto frozen = bundle.directoryURL / ("frozen-" + std::to_string(layer));
        fs::rename(bundle.qcow2Disk(), frozen);
        writeFileAtomically(bundle.qcow2Disk(), "layer " + std::to_string(layer + 1));
        try {
            host.run(supervisor->attachSystemDiskOverlay(bundle.qcow2Disk(), frozen, std::move(rewrite)));
        } catch (const DorvaneError& error) {
            EXPECT_EQ(error.which(), DorvaneError::Case::vmSnapshotFailed);
            return error.text();
        }
        return {};
    }
    int times(const std::string& command) const { return qemu.count("\"execute\":\"" + command + "\""); }

    QEMURuntimeDirectory runtime = QEMURuntimeDirectory::make(UUID::random(), directory.path());
};

const SnapshotParentRewrite rewrite{"Snapshots/P/disk.qcow2", "../P/disk.qcow2"};

TEST(QEMUOverlay, EachOneGetsALinkOfItsOwnAndTheOpenLayersKeepTheirs) {
    OverlayScene scene({});
    EXPECT_EQ(scene.attach(0, std::nullopt), "");
    EXPECT_EQ(scene.times("change-backing-file"), 0);
    EXPECT_EQ(scene.attach(1, rewrite), "");
    EXPECT_EQ(scene.times("blockdev-snapshot"), 2);
    EXPECT_EQ(scene.qemu.count(R"("backing":null)"), 2) << "QEMU must not open the chain by itself";
    EXPECT_EQ(scene.qemu.count(R"("backing-file":"../P/disk.qcow2")"), 1);
    for (int layer = 0; layer < 3; ++layer)
        EXPECT_EQ(readTextFile(scene.runtime.systemDiskLink(layer)), "layer " + std::to_string(layer));
}

TEST(QEMUOverlay, AFailureLeavesTheDiskOnItsOldNodeAndLink) {
    struct Row {
        std::vector<std::string> words;
        std::string reason;
        int rewrites, removals;
    };
    const Row table[] = {
        {{"refuse=blockdev-add"}, "no blockdev-add", 0, 0},
        {{"refuse=change-backing-file"}, "no change-backing-file", 1, 1},
        {{"refuse=blockdev-snapshot"}, "no blockdev-snapshot", 2, 1},
        {{"refuse=blockdev-snapshot", "refuse=query-block"}, "no blockdev-snapshot", 2, 1},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        OverlayScene scene(row.words);
        EXPECT_EQ(scene.attach(0, rewrite), row.reason);
        EXPECT_EQ(scene.times("change-backing-file"), row.rewrites) << "the header is put back";
        EXPECT_EQ(scene.times("blockdev-del"), row.removals);
        EXPECT_EQ(fs::read_symlink(scene.runtime.systemDiskLink(0)), scene.bundle.qcow2Disk());
        EXPECT_FALSE(fs::exists(fs::symlink_status(scene.runtime.systemDiskLink(1))));
    }
}

TEST(QEMUOverlay, ASwitchThatQEMUComplainedAboutStillCounts) {
    OverlayScene scene({"refuse=blockdev-snapshot", "switchesLate"});
    EXPECT_EQ(scene.attach(0, std::nullopt), "");
    EXPECT_EQ(scene.times("blockdev-del"), 0);
    EXPECT_EQ(scene.attach(1, std::nullopt), "");
    EXPECT_EQ(readTextFile(scene.runtime.systemDiskLink(2)), "layer 2") << "the index went up";
}

TEST(QEMUOverlay, AnUnusableLinkStopsItBeforeQEMUHearsOfIt) {
    OverlayScene scene({});
    // A directory stands where the new link belongs.
    fs::create_directories(scene.runtime.systemDiskLink(1) / "occupied");
    EXPECT_NE(scene.attach(0, std::nullopt), "");
    EXPECT_EQ(scene.times("blockdev-add"), 0);
    EXPECT_EQ(fs::read_symlink(scene.runtime.systemDiskLink(0)), scene.bundle.qcow2Disk());
}

}  // namespace
}  // namespace dorvane
