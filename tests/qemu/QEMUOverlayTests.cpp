// SPDX-License-Identifier: Apache-2.0
// Switching a running machine's disk to a new top layer, with a QEMU that refuses one command or another.
#include <gmock/gmock.h>

#include "core/DorvaneError.h"
#include "qemu/QEMUProcessSupervisor.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;
using Case = DorvaneError::Case;

struct OverlayScene {
    explicit OverlayScene(const Words& words) {
        fs::create_directory(bundle.directoryURL);
        writeFileAtomically(bundle.qcow2Disk(), "layer 0");
        runtime.linkSystemDisk(bundle);
        qemu.script("qemu-system-aarch64", words);
        QEMULaunch launch;
        launch.paths.executable = qemu.emulator();
        launch.paths.qmpSocket = runtime.qmpSocket();
        launch.arguments = {"-qmp", "unix:" + launch.paths.qmpSocket.string() + ",server=on,wait=off"};
        supervisor->setRuntimeDirectory(runtime);
        host.run(supervisor->start(launch));
    }
    ~OverlayScene() { host.run(supervisor->stop(true, seconds(1))); }

    Path frozen(int layer) const { return bundle.directoryURL / ("frozen-" + std::to_string(layer)); }
    /// Freezes the present layer as the snapshot service does, and has the supervisor follow. The error's
    /// text, empty for success.
    std::string attach(int layer, std::optional<SnapshotParentRewrite> rewrite) {
        fs::rename(bundle.qcow2Disk(), frozen(layer));
        writeFileAtomically(bundle.qcow2Disk(), "layer " + std::to_string(layer + 1));
        try {
            host.run(
                supervisor->attachSystemDiskOverlay(bundle.qcow2Disk(), frozen(layer), std::move(rewrite)));
        } catch (const DorvaneError& error) {
            EXPECT_EQ(error.which(), Case::vmSnapshotFailed);
            return error.text();
        }
        return {};
    }
    int times(const std::string& command) const { return qemu.count("\"execute\":\"" + command + "\""); }

    test::TestRuntime host{test::TestRuntime::TimeMode::manual};
    test::TimePump pump{host.clock()};
    test::FakeQEMUInstallation qemu;
    test::TemporaryDirectory directory;
    test::FakeProcesses processes;
    VMBundle bundle{directory / "Machine"};
    QEMURuntimeDirectory runtime = QEMURuntimeDirectory::make(UUID::random(), directory.path());
    std::shared_ptr<QEMUProcessSupervisor> supervisor = std::make_shared<QEMUProcessSupervisor>(
        host.runtime(), processes, UUID::random(), DorvaneVMConfig{}, bundle);
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
    EXPECT_EQ(readTextFile(scene.runtime.systemDiskLink(0)), "layer 0");
    EXPECT_EQ(readTextFile(scene.runtime.systemDiskLink(1)), "layer 1");
    EXPECT_EQ(readTextFile(scene.runtime.systemDiskLink(2)), "layer 2");
}

TEST(QEMUOverlay, AFailureLeavesTheDiskOnItsOldNodeAndLink) {
    struct Row {
        Words words;
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
