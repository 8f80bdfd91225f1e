// SPDX-License-Identifier: Apache-2.0
// Chains that nobody made with this program, or that lost a piece.
#include <gmock/gmock.h>

#include "snapshots/FakeChainScene.h"
#include "support/ErrorOf.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

class DamagedSnapshotChain : public test::FakeChainScene {
  protected:
    struct Damage {
        const char* name;
        std::function<void()> make;
        const char* sentence;
    };
    /// Another machine's disk, which a way out of the bundle may lead to.
    const Path outside = storage / "Other" / "Snapshots" / B.text();

    void build() {
        buildTree();
        fs::remove_all(storage / "Other");
        fs::create_directories(outside);
        test::FakeChainTool::createDisk(outside / "disk.qcow2");
    }
    /// All on the way from the live disk down.
    std::vector<Damage> damages() const {
        const auto base = [this](const std::string& backing) {
            return [this, backing] { tool->retargetBackingUnsafe(disk(C), backing); };
        };
        const auto replace = [this](const Path& what, std::function<void()> by) {
            return [=, this] {
                fs::rename(what, storage / "Other" / "moved");
                by();
            };
        };
        const auto folder = Node::directory(bundle, B);
        const auto cycle = [this] { tool->retargetBackingUnsafe(disk(A), "../" + C.text() + "/disk.qcow2"); };
        const char* const foreign = "is not a snapshot of this VM";
        return {
            {"a circle", cycle, "run in a circle"},
            {"itself", base("../" + C.text() + "/disk.qcow2"), "run in a circle"},
            {"an absolute path", base((outside / "disk.qcow2").string()), foreign},
            {"a way out", base("../../../Other/Snapshots/" + B.text() + "/disk.qcow2"), foreign},
            {"no snapshot", base("../../../../x"), foreign},
            {"a detour", base("../" + A.text() + "/../" + B.text() + "/disk.qcow2"), foreign},
            {"a gap", replace(disk(B), [] {}), "is missing"},
            {"a linked disk",
             replace(disk(B), [this] { fs::create_symlink(outside / "disk.qcow2", disk(B)); }),
             "is not a plain file"},
            {"a directory as disk", replace(disk(B), [this] { fs::create_directory(disk(B)); }),
             "is not a plain file"},
            {"a missing folder", replace(folder, [] {}), "is missing"},
            {"a linked folder",
             replace(folder,
                     [=, this] { fs::create_directory_symlink(storage / "Other" / "moved", folder); }),
             "is not a folder"},
            {"a file as folder", replace(folder, [=] { writeFileAtomically(folder, "file"); }),
             "is not a folder"},
        };
    }
};

TEST_F(DamagedSnapshotChain, IsRefusedWithNothingTouchedAndLeadsNoDeletionOutOfTheBundle) {
    for (const auto& damage : damages()) {
        SCOPED_TRACE(damage.name);
        build();
        damage.make();
        const auto before = files(), outsideBefore = files("Other");
        for (const auto& run : std::initializer_list<std::function<void()>>{
                 [&] { store.capture(bundle, N); }, [&] { store.restore(bundle, C); },
                 [&] { store.deleteSnapshot(bundle, C); }, [&] { store.flattenLiveDisk(bundle); }}) {
            const auto error = test::errorOf(run);
            EXPECT_EQ(error.which(), DorvaneError::Case::vmSnapshotFailed);
            EXPECT_THAT(error.text(), HasSubstr(damage.sentence));
            EXPECT_EQ(files(), before);
        }
        EXPECT_FALSE(repair.run(bundle));
        EXPECT_EQ(files(), before);
        // The snapshot that the damaged layer stands on, or seems to.
        test::errorOf([&] { store.deleteSnapshot(bundle, B); });
        EXPECT_EQ(files("Other"), outsideBefore);
        repair.run(bundle);
        EXPECT_EQ(files("Other"), outsideBefore);
        EXPECT_TRUE(fs::is_regular_file(disk(C)));
    }
}

TEST_F(DamagedSnapshotChain, ALinkedSnapshotsFolderIsNotFollowed) {
    build();
    const auto moved = storage / "Moved";
    fs::rename(bundle.snapshotsDirectory(), moved);
    fs::create_directory(moved / N.text());
    fs::create_directory_symlink(moved, bundle.snapshotsDirectory());
    const auto before = files();
    EXPECT_THROW(store.capture(bundle, N), DorvaneError);
    EXPECT_THROW(store.deleteSnapshot(bundle, E), DorvaneError);
    EXPECT_THROW(store.deleteSnapshot(bundle, N), FileError);
    EXPECT_FALSE(repair.run(bundle));
    EXPECT_EQ(files(), before);
}

}  // namespace
}  // namespace dorvane
