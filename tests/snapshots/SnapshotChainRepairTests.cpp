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
    SnapshotChainRepairs() { buildTree(); }

    void touch(const Path& file) {
        fs::create_directories(file.parent_path());
        writeFileAtomically(file, std::string_view());
    }
    std::string header(const Path& image) const { return tool->backingPath(image).value_or("(none)"); }
    void freezeByHand() {
        touch(mark(N, ".capturing"));
        fs::rename(live(), disk(N));
    }
    void halfOverlay(const Path& place) { writeFileAtomically(place, R"({"size":64,"data":{}})"); }
    bool hasLeftovers() const {
        for (const auto& [path, bytes] : files())
            if (path.string().ends_with(".capturing") || path.string().ends_with(".merging") ||
                path.string().ends_with(".deleted") || path.string().ends_with(".rebasing") ||
                path == discarded() || path == restoring())
                return true;
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

TEST_F(SnapshotChainRepairs, ASoundChainIsLeftAlone) {
    const auto before = files();
    EXPECT_TRUE(repair.run(bundle));
    EXPECT_EQ(files(), before);
    fs::remove_all(bundle.snapshotsDirectory());
    test::FakeChainTool::createDisk(live());
    EXPECT_TRUE(repair.run(bundle));
}

TEST_F(SnapshotChainRepairs, AnUnfinishedCaptureIsUndone) {
    const auto frozenHeader = "../" + C.text() + "/disk.qcow2";
    const struct {
        const char* name;
        std::function<void()> leave;
    } states[] = {
        {"directory only", [&] { fs::create_directory(Node::directory(bundle, N)); }},
        {"not moved", [&] { touch(mark(N, ".capturing")); }},
        {"not moved, with the service's files",
         [&] {
             touch(mark(N, ".capturing"));
             touch(mark(N, "config.json"));
         }},
        {"moved", [&] { freezeByHand(); }},
        {"moved, header rewritten",
         [&] {
             freezeByHand();
             tool->retargetBackingUnsafe(disk(N), frozenHeader);
         }},
        {"overlay cut short",
         [&] {
             freezeByHand();
             tool->retargetBackingUnsafe(disk(N), frozenHeader);
             touch(live());
         }},
        {"overlay without its backing path",
         [&] {
             freezeByHand();
             halfOverlay(live());
         }},
        {"half overlay set aside",
         [&] {
             freezeByHand();
             halfOverlay(discarded());
         }},
        {"disk back, half overlay still there",
         [&] {
             touch(mark(N, ".capturing"));
             halfOverlay(discarded());
         }},
        {"disk back with the header of its former place",
         [&] { tool->retargetBackingUnsafe(live(), frozenHeader); }},
        {"rolled back, overlay and folder still there",
         [&] {
             touch(mark(N, "config.json"));
             writeFileAtomically(discarded(), prettyJSON({{"backing", Node::live().backingPath(N)},
                                                          {"size", 64},
                                                          {"data", JSON::object()}}));
         }},
        {"staged restore", [&] { halfOverlay(restoring()); }},
        {"half removed folder",
         [&] { touch(bundle.snapshotsDirectory() / (N.text() + ".deleted") / "disk.qcow2"); }},
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
    const struct {
        const char* name;
        std::function<void()> leave;
    } states[] = {
        {"capture done, mark still there", [&] { touch(mark(N, ".capturing")); }},
        {"header not rewritten by the emulator",
         [&] { tool->retargetBackingUnsafe(disk(N), Node::live().backingPath(C)); }},
        {"rollback begun",
         [&] {
             tool->retargetBackingUnsafe(disk(N), Node::live().backingPath(C));
             fs::rename(live(), discarded());
         }},
    };
    store.capture(bundle, N);
    guestWrites("later");
    const auto before = contents();
    for (const auto& state : states) {
        SCOPED_TRACE(state.name);
        state.leave();
        expectMended();
        EXPECT_EQ(contents(), before);
        EXPECT_EQ(header(disk(N)), "../" + C.text() + "/disk.qcow2");
    }
}

TEST_F(SnapshotChainRepairs, AnInterruptedMergeIsFinished) {
    const auto expected = [this] {
        auto all = contents();
        all.erase(C.text());
        return all;
    }();
    const auto commit = [this] {
        touch(mark(C, ".merging"));
        tool->commit(live());
    };
    const auto retarget = [this] { tool->retargetBackingUnsafe(disk(C), Node::live().backingPath(B)); };
    const std::vector<std::function<void()>> states{
        [&] { touch(mark(C, ".merging")); },
        [&] { commit(); },
        [&] {
            commit();
            retarget();
        },
        [&] {
            commit();
            retarget();
            fs::rename(disk(C), live());
        },
    };
    for (std::size_t index = 0; index < states.size(); ++index) {
        SCOPED_TRACE(index);
        states[index]();
        expectMended();
        EXPECT_EQ(contents(), expected);
        EXPECT_FALSE(fs::exists(Node::directory(bundle, C)));
        EXPECT_EQ(header(live()), "Snapshots/" + B.text() + "/disk.qcow2");
        store.capture(bundle, C);
        test::FakeChainTool::guestWrites(live(), "live", "live's own");
        test::FakeChainTool::guestWrites(live(), "common", "by live");
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
    const struct {
        const char* name;
        std::function<void()> leave;
    } states[] = {
        {"the live disk is gone", [&] { fs::remove(live()); }},
        {"another live disk",
         [&] {
             store.restore(bundle, E);
             touch(mark(C, ".capturing"));
         }},
        {"a large unfinished overlay",
         [&] {
             freezeByHand();
             tool->retargetBackingUnsafe(disk(N), "../" + C.text() + "/disk.qcow2");
             truncateFile(live(), (16 << 20) + 1);
         }},
        {"something set aside beside a live disk",
         [&] {
             writeFileAtomically(discarded(), prettyJSON({{"backing", Node::live().backingPath(E)},
                                                          {"size", 64},
                                                          {"data", {{"x", "a guest's"}}}}));
         }},
        {"a large image set aside", [&] { truncateFile(discarded(), (16 << 20) + 1); }},
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
    halfOverlay(discarded());
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
