// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotChainStore.h"

#include <gmock/gmock.h>

#include "snapshots/FakeChainScene.h"
#include "support/ErrorOf.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Failure = test::FakeChainTool::Failure;

class SnapshotChain : public test::FakeChainScene {
  protected:
    std::string backing(const Path& image) const { return tool->backingPath(image).value_or("(none)"); }

    struct Operation {
        const char* name;
        std::function<void()> run;
        /// The snapshot that the operation makes or takes away.
        std::optional<UUID> subject;
        bool isCapture = false;
    };
    std::vector<Operation> operations() const {
        const auto removal = [this](UUID id) { return [this, id] { store.deleteSnapshot(bundle, id); }; };
        return {{"capture", [this] { store.capture(bundle, N); }, N, true},
                {"capture while running", [this] { store.captureWhileRunning(bundle, N); }, N, true},
                {"restore", [this] { store.restore(bundle, C); }, std::nullopt},
                {"delete a leaf", removal(E), E},
                {"delete below the live disk", removal(C), C},
                {"delete with one child", removal(B), B},
                {"delete with two children", removal(D), D},
                {"delete the root of two children", removal(A), A},
                {"flatten", [this] { store.flattenLiveDisk(bundle); }, std::nullopt}};
    }
};

TEST_F(SnapshotChain, ACaptureRewritesTheHeaderOfTheMovedDiskIfThereIsOneBelow) {
    EXPECT_EQ(store.capture(bundle, N), std::nullopt);
    EXPECT_THAT(tool->calls, testing::Not(testing::Contains(HasSubstr("retarget"))));
    EXPECT_TRUE(log.contains("Captured chain snapshot " + N.text() + ", parent (root)"));
    store.uncapture(bundle, N, std::nullopt);
    buildTree();
    const auto before = contents();
    EXPECT_EQ(store.capture(bundle, N), C);
    EXPECT_EQ(backing(disk(N)), "../" + C.text() + "/disk.qcow2");
    EXPECT_EQ(backing(live()), "Snapshots/" + N.text() + "/disk.qcow2");
    EXPECT_TRUE(log.contains("Captured chain snapshot " + N.text() + ", parent " + C.text()));
    auto after = contents();
    EXPECT_EQ(after.extract(N.text()).mapped(), before.at("live"));
    EXPECT_EQ(after, before);
}

TEST_F(SnapshotChain, ARunningCaptureLeavesTheHeaderToTheEmulator) {
    EXPECT_EQ(store.captureWhileRunning(bundle, N), SnapshotChainStore::RunningCapture());
    store.uncaptureRunning(bundle, N, std::nullopt);
    buildTree();
    const auto before = files();
    const auto captured = store.captureWhileRunning(bundle, N);
    EXPECT_EQ(captured.parentID, C);
    ASSERT_TRUE(captured.parentRewrite);
    EXPECT_EQ(backing(disk(N)), captured.parentRewrite->originalBacking);
    EXPECT_EQ(captured.parentRewrite->originalBacking, "Snapshots/" + C.text() + "/disk.qcow2");
    EXPECT_EQ(captured.parentRewrite->newBacking, "../" + C.text() + "/disk.qcow2");
    EXPECT_TRUE(log.contains("Captured running chain snapshot " + N.text() + ", parent " + C.text()));
    store.uncaptureRunning(bundle, N, C);
    EXPECT_EQ(files(), before);
    EXPECT_TRUE(log.contains("Rolled back running chain snapshot " + N.text()));
}

TEST_F(SnapshotChain, DerivesTheTreeFromTheHeaders) {
    EXPECT_THAT(store.snapshotIDsOnDisk(bundle), IsEmpty());
    buildTree();
    fs::create_directory(bundle.snapshotsDirectory() / "not a snapshot");
    writeFileAtomically(bundle.snapshotsDirectory() / N.text(), "a file");
    EXPECT_THAT(store.snapshotIDsOnDisk(bundle), ElementsAre(A, B, C, D, E, F));
    EXPECT_THAT(store.children(bundle, Node::snapshot(A)), ElementsAre(Node::snapshot(B), Node::snapshot(D)));
    EXPECT_THAT(store.children(bundle, Node::snapshot(C)), ElementsAre(Node::live()));
    EXPECT_THAT(store.children(bundle, Node::snapshot(E)), IsEmpty());
    EXPECT_THAT(store.children(bundle, Node::live()), IsEmpty());
    EXPECT_EQ(store.depth(bundle), 3);
    // A layer that can't be read might be a child.
    writeFileAtomically(disk(F), "no image");
    EXPECT_THROW(store.children(bundle, Node::snapshot(D)), DorvaneError);

    tool->retargetBackingUnsafe(disk(A), "../" + C.text() + "/disk.qcow2");
    EXPECT_EQ(store.depth(bundle), 65);
}

TEST_F(SnapshotChain, ReadsTheSnapshotOutOfABackingPath) {
    const auto text = A.text();
    for (const auto& path : {"Snapshots/" + text + "/disk.qcow2", "../" + text + "/disk.qcow2", text + "/x",
                             "/abs/" + text + "/disk.qcow2"})
        EXPECT_EQ(SnapshotChainStore::snapshotID(path), A) << path;
    for (const auto& path : {std::string(), text, "/" + text, text + "/a/b", text.substr(1) + "/disk.qcow2"})
        EXPECT_EQ(SnapshotChainStore::snapshotID(path), std::nullopt) << path;
}

TEST_F(SnapshotChain, ADeletedSnapshotTakesNothingElseWithIt) {
    for (const auto& deleted : {A, B, C, D, E, F}) {
        buildTree();
        auto expected = contents();
        expected.erase(deleted.text());
        store.deleteSnapshot(bundle, deleted);
        EXPECT_EQ(contents(), expected) << deleted.text();
        EXPECT_FALSE(fs::exists(Node::directory(bundle, deleted))) << deleted.text();
        store.deleteSnapshot(bundle, deleted);
    }
}

TEST_F(SnapshotChain, ALiveDiskThatIsGoneIsRestored) {
    buildTree();
    const auto before = contents();
    fs::remove(live());
    store.restore(bundle, E);
    EXPECT_EQ(contents().at("live"), before.at(E.text()));
    EXPECT_TRUE(log.contains("Restored chain snapshot " + E.text()));
    EXPECT_EQ(
        test::errorOf([&] { store.restore(bundle, N); }),
        DorvaneError(DorvaneError::Case::vmSnapshotRestoreFailed, "The snapshot's disk image is missing."));
}

/// Every call of the tool, in every operation, fails once before it does anything and once in its middle.
TEST_F(SnapshotChain, AFailingToolLosesNothing) {
    int cases = 0;
    for (const auto how : {Failure::before, Failure::midway}) {
        for (const auto& operation : operations()) {
            for (int call = 1;; ++call) {
                buildTree();
                SCOPED_TRACE(std::string(operation.name) + ", call " + std::to_string(call));
                auto expected = contents();
                const auto before = files();
                tool->startCounting(call, how);
                const auto failure = test::errorOf(operation.run);
                if (!tool->hasFailed()) {
                    EXPECT_EQ(failure.text(), "nothing was thrown");
                    break;
                }
                ++cases;
                tool->startCounting();
                EXPECT_EQ(failure.which(), DorvaneError::Case::vmSnapshotFailed);
                if (operation.isCapture) {
                    EXPECT_EQ(files(), before);
                }
                const auto expectNothingElseLost = [&] {
                    if (operation.subject && !contents().contains(operation.subject->text()))
                        expected.erase(operation.subject->text());
                    EXPECT_EQ(contents(), expected);
                };
                expectNothingElseLost();
                EXPECT_TRUE(repair.run(bundle));
                expectNothingElseLost();
                operation.run();
            }
        }
    }
    EXPECT_GT(cases, 100);
}

TEST_F(SnapshotChain, ASnapshotThatIsHalfMergedCanOnlyBeDeleted) {
    buildTree();
    const auto merge = [this] { store.deleteSnapshot(bundle, C); };
    merge();
    const auto commit = std::find(tool->calls.begin(), tool->calls.end(), "commit disk.qcow2");
    ASSERT_NE(commit, tool->calls.end());
    const auto number = static_cast<int>(commit - tool->calls.begin()) + 1;
    store.capture(bundle, C);
    guestWrites("late");
    const auto before = contents();

    tool->startCounting(number, Failure::before);
    EXPECT_THROW(merge(), DorvaneError);
    EXPECT_EQ(contents(), before);
    tool->startCounting(number, Failure::midway);
    EXPECT_THROW(merge(), DorvaneError);
    EXPECT_NE(test::FakeChainTool::content(disk(C)), before.at(C.text()));
    EXPECT_EQ(contents().at("live"), before.at("live"));
    tool->startCounting(number, Failure::before);
    EXPECT_THROW(merge(), DorvaneError);
    tool->startCounting();
    EXPECT_EQ(test::errorOf([&] { store.restore(bundle, C); }).which(),
              DorvaneError::Case::vmSnapshotRestoreFailed);
    merge();
    EXPECT_EQ(contents().at("live"), before.at("live"));
    EXPECT_FALSE(contents().contains(C.text()));
}

TEST_F(SnapshotChain, AnUndoThatCannotGoOnSaysWhereTheDiskIs) {
    buildTree();
    const auto before = contents();
    // Undoing what never was must not touch the live disk.
    store.uncapture(bundle, N, C);
    EXPECT_EQ(contents(), before);

    store.capture(bundle, N);
    const auto captured = contents();
    writeFileAtomically(discarded(), "in the way");
    store.uncapture(bundle, N, C);
    EXPECT_TRUE(log.contains("Rollback of " + N.text() +
                             " could not move the new overlay aside; leaving the snapshot in place: "));
    EXPECT_EQ(contents(), captured);
    fs::remove(discarded());
    store.uncapture(bundle, N, C);
    EXPECT_EQ(contents(), before);
    EXPECT_TRUE(log.contains("Rolled back chain snapshot " + N.text()));
}

TEST_F(SnapshotChain, ADirectoryWithADiskIsNotRemovedBlindly) {
    buildTree();
    fs::create_directory(Node::directory(bundle, N));
    EXPECT_TRUE(store.removeDirectoryWithoutDisk(bundle, N));
    EXPECT_FALSE(fs::exists(Node::directory(bundle, N)));
    EXPECT_TRUE(store.removeDirectoryWithoutDisk(bundle, N));
    const auto before = files();
    EXPECT_FALSE(store.removeDirectoryWithoutDisk(bundle, E));
    EXPECT_THROW(store.capture(bundle, E), FileError);
    EXPECT_EQ(files(), before);
}

}  // namespace
}  // namespace dorvane
