// SPDX-License-Identifier: Apache-2.0
// Each state that an interruption can leave, made by hand.
#include "snapshots/SnapshotChainRepair.h"

#include "qemu/QEMUImageChainTool.h"
#include "snapshots/FakeChainScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

class SnapshotChainRepairs : public test::FakeChainScene {
  protected:
    /// What an interruption leaves, piece by piece in the order in which it comes about.
    using Step = std::function<void()>;
    struct State {
        const char* name;
        std::vector<Step> steps;
        void leave() const {
            for (const auto& step : steps) step();
        }
    };
    const std::string onC = "../" + C.text() + "/disk.qcow2";
    const Step beginCapture = [this] { touch(mark(N, ".capturing")); };
    const Step freeze = [this] {
        beginCapture();
        fs::rename(live(), disk(N));
    };
    const Step rewriteHeader = [this] { tool->retargetBackingUnsafe(disk(N), onC); };

    SnapshotChainRepairs() { buildTree(); }

    void touch(const Path& file) {
        fs::create_directories(file.parent_path());
        writeFileAtomically(file, "");
    }
    std::string header(const Path& image) const { return tool->backingPath(image).value_or("(none)"); }
    Step halfOverlay(const Path& place) const {
        return [place] { writeFileAtomically(place, R"({"size":64,"data":{}})"); };
    }
    void discard(const UUID& backing, const JSON& data) const {
        writeFileAtomically(
            discarded(),
            prettyJSON({{"backing", Node::live().backingPath(backing)}, {"size", 64}, {"data", data}}));
    }
    bool hasLeftovers() const {
        for (const auto& [path, bytes] : files())
            for (const auto* mark :
                 {".capturing", ".merging", ".deleted", ".rebasing", ".discarded", ".restoring"})
                if (path.string().ends_with(mark)) return true;
        return false;
    }
    /// Runs it twice: what is mended needs no mending.
    void expectMended() {
        EXPECT_TRUE(repair.run(bundle));
        EXPECT_FALSE(hasLeftovers());
        const auto mended = files();
        EXPECT_TRUE(repair.run(bundle));
        EXPECT_EQ(files(), mended);
    }
};

TEST_F(SnapshotChainRepairs, ABundleWithoutSnapshotsIsSound) {
    fs::remove_all(bundle.snapshotsDirectory());
    test::FakeChainTool::createDisk(live());
    EXPECT_TRUE(repair.run(bundle));
}

TEST_F(SnapshotChainRepairs, AnUnfinishedCaptureIsUndone) {
    const auto saveConfig = [&] { touch(mark(N, "config.json")); };
    const State states[] = {
        {"directory only", {[&] { fs::create_directory(Node::directory(bundle, N)); }}},
        {"not moved", {beginCapture}},
        {"not moved, with the service's files", {beginCapture, saveConfig}},
        {"moved", {freeze}},
        {"moved, header rewritten", {freeze, rewriteHeader}},
        {"overlay cut short", {freeze, rewriteHeader, [&] { touch(live()); }}},
        {"overlay without its backing path", {freeze, halfOverlay(live())}},
        {"half overlay set aside", {freeze, halfOverlay(discarded())}},
        {"disk back, half overlay still there", {beginCapture, halfOverlay(discarded())}},
        {"disk back with the header of its former place",
         {[&] { tool->retargetBackingUnsafe(live(), onC); }}},
        {"rolled back, overlay and folder still there", {saveConfig, [&] { discard(N, JSON::object()); }}},
        {"staged restore", {halfOverlay(restoring())}},
        {"half removed folder",
         {[&] { touch(bundle.snapshotsDirectory() / (N.text() + ".deleted") / "disk.qcow2"); }}},
    };
    const auto before = contents();
    const auto bytes = files();
    for (const auto& state : states) {
        SCOPED_TRACE(state.name);
        state.leave();
        expectMended();
        EXPECT_EQ(contents(), before);
        EXPECT_EQ(files(), bytes);
    }
}

TEST_F(SnapshotChainRepairs, ALayerThatAGuestMayHaveUsedIsKept) {
    const auto asLive = [&] { tool->retargetBackingUnsafe(disk(N), Node::live().backingPath(C)); };
    const State states[] = {
        {"capture done, mark still there", {beginCapture}},
        {"header not rewritten by the emulator", {asLive}},
        {"rollback begun", {asLive, [&] { fs::rename(live(), discarded()); }}},
    };
    store.capture(bundle, N);
    guestWrites("later");
    const auto before = contents();
    for (const auto& state : states) {
        SCOPED_TRACE(state.name);
        state.leave();
        expectMended();
        EXPECT_EQ(contents(), before);
        EXPECT_EQ(header(disk(N)), onC);
    }
}

TEST_F(SnapshotChainRepairs, AnInterruptedMergeIsFinished) {
    auto expected = contents();
    expected.erase(C.text());
    const Step begin = [&] { touch(mark(C, ".merging")); };
    const Step commit = [&] { tool->commit(live()); };
    const Step retarget = [&] { tool->retargetBackingUnsafe(disk(C), Node::live().backingPath(B)); };
    const State states[] = {
        {"begun", {begin}},
        {"committed", {begin, commit}},
        {"header rewritten", {begin, commit, retarget}},
        {"moved", {begin, commit, retarget, [&] { fs::rename(disk(C), live()); }}},
    };
    for (const auto& state : states) {
        SCOPED_TRACE(state.name);
        buildTree();
        state.leave();
        expectMended();
        EXPECT_EQ(contents(), expected);
        EXPECT_FALSE(fs::exists(Node::directory(bundle, C)));
        EXPECT_EQ(header(live()), "Snapshots/" + B.text() + "/disk.qcow2");
    }
}

TEST_F(SnapshotChainRepairs, AnInterruptedRebaseGoesBackToItsFormerLayer) {
    const auto before = contents();
    const struct {
        Path disk;
        std::string former;
        std::optional<std::string> target;
    } states[] = {{live(), Node::live().backingPath(C), std::nullopt},
                  {disk(E), Node::snapshot(E).backingPath(D), Node::snapshot(E).backingPath(A)}};
    for (const auto& state : states) {
        const Path mark = state.disk.string() + ".rebasing";
        for (const bool isBegun : {false, true}) {
            SCOPED_TRACE(state.disk);
            writeFileAtomically(mark, state.former);
            if (isBegun) tool->retargetBackingUnsafe(state.disk, state.target);
            // Until then nothing builds on it, and nothing that it may still need goes away.
            const auto left = files();
            EXPECT_THROW(store.deleteSnapshot(bundle, D), DorvaneError);
            EXPECT_THROW(store.deleteSnapshot(bundle, F), DorvaneError);
            EXPECT_EQ(files(), left);
            expectMended();
            EXPECT_EQ(contents(), before);
        }
    }
    // A mark that leads elsewhere is not followed.
    writeFileAtomically(live().string() + ".rebasing", "../../Other/" + C.text() + "/disk.qcow2");
    EXPECT_THROW(store.capture(bundle, N), DorvaneError);
    const auto left = files();
    EXPECT_FALSE(repair.run(bundle));
    EXPECT_EQ(files(), left);
    store.restore(bundle, C);
    expectMended();
}

/// What doesn't fit any interruption is somebody's data until proven otherwise.
TEST_F(SnapshotChainRepairs, WhatItDoesNotUnderstandStays) {
    constexpr auto large = (16 << 20) + 1;
    const State states[] = {
        {"the live disk is gone", {[&] { fs::remove(live()); }}},
        {"another live disk", {[&] { store.restore(bundle, E); }, [&] { touch(mark(C, ".capturing")); }}},
        {"a large unfinished overlay", {freeze, rewriteHeader, [&] { truncateFile(live(), large); }}},
        {"something set aside beside a live disk", {[&] {
             discard(E, {{"x", "a guest's"}});
         }}},
        {"a large image set aside", {[&] { truncateFile(discarded(), large); }}},
    };
    for (const auto& state : states) {
        SCOPED_TRACE(state.name);
        buildTree();
        state.leave();
        const auto before = files();
        EXPECT_FALSE(repair.run(bundle));
        EXPECT_EQ(files(), before);
    }
}

TEST_F(SnapshotChainRepairs, WithoutAToolNoDiskLooksUnfinished) {
    const SnapshotChainRepair without{
        SnapshotChainStore(std::make_shared<QEMUImageChainTool>("/nonexistent"))};
    touch(mark(C, ".capturing"));
    halfOverlay(discarded())();
    auto before = files();
    EXPECT_FALSE(without.run(bundle));
    EXPECT_EQ(files(), before);
    fs::remove(live());
    before = files();
    EXPECT_FALSE(without.run(bundle));
    EXPECT_EQ(files(), before);
}

}  // namespace
}  // namespace dorvane
