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
        const auto replaceDisk = [this](std::function<void()> by) {
            return [this, by] {
                fs::remove(disk(B));
                by();
            };
        };
        const auto replaceFolder = [this](std::function<void()> by) {
            return [this, by] {
                fs::rename(Node::directory(bundle, B), storage / "Other" / "moved");
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
            {"a gap", replaceDisk([] {}), "is missing"},
            {"a linked disk", replaceDisk([this] { fs::create_symlink(outside / "disk.qcow2", disk(B)); }),
             "is not a plain file"},
            {"a directory as disk", replaceDisk([this] { fs::create_directory(disk(B)); }),
             "is not a plain file"},
            {"a missing folder", replaceFolder([] {}), "is missing"},
            {"a linked folder",
             replaceFolder([=, this] { fs::create_directory_symlink(storage / "Other" / "moved", folder); }),
             "is not a folder"},
            {"a file as folder",
             replaceFolder([=] { writeFileAtomically(folder, std::string_view("file")); }),
             "is not a folder"},
        };
    }
    std::map<Path, std::string> filesOutside() const {
        auto all = files();
        std::erase_if(all, [&](const auto& entry) {
            return !entry.first.string().starts_with((storage / "Other").string());
        });
        return all;
    }
};

TEST_F(DamagedSnapshotChain, IsRefusedWithNothingTouched) {
    for (const auto& damage : damages()) {
        SCOPED_TRACE(damage.name);
        build();
        damage.make();
        const auto before = files();
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
    }
}

/// The snapshot that the damaged layer stands on, or seems to.
TEST_F(DamagedSnapshotChain, LeadsNoDeletionOutOfTheBundle) {
    for (const auto& damage : damages()) {
        SCOPED_TRACE(damage.name);
        build();
        damage.make();
        const auto before = filesOutside();
        try {
            store.deleteSnapshot(bundle, B);
        } catch (const std::exception&) {
        }
        EXPECT_EQ(filesOutside(), before);
        repair.run(bundle);
        EXPECT_EQ(filesOutside(), before);
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
