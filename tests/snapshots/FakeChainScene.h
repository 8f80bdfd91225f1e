// SPDX-License-Identifier: Apache-2.0
// A machine's folder with a tree of fake layers: A < B < C < live, and A < D < E, D < F.
#pragma once

#include <gtest/gtest.h>

#include "snapshots/FakeChainTool.h"
#include "snapshots/SnapshotChainRepair.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class FakeChainScene : public testing::Test {
  protected:
    using Node = SnapshotChainNode;
    using Content = FakeChainTool::Content;
    using Contents = std::map<std::string, Content>;

    TemporaryDirectory storage;
    LogCapture log;
    const VMBundle bundle{storage / "Machine"};
    const std::shared_ptr<FakeChainTool> tool = std::make_shared<FakeChainTool>();
    const SnapshotChainStore store{tool};
    const SnapshotChainRepair repair{store};
    const UUID A = id('A'), B = id('B'), C = id('C'), D = id('D'), E = id('E'), F = id('F'), N = id('0');

    FakeChainScene();

    static UUID id(char letter) {
        return *UUID::parse(std::string("ABCDEF00-0000-4000-8000-00000000000") + letter);
    }
    Path disk(const UUID& snapshot) const { return Node::snapshot(snapshot).diskURL(bundle); }
    Path live() const { return bundle.qcow2Disk(); }
    Path discarded() const { return bundle.directoryURL / "disk.qcow2.discarded"; }
    Path restoring() const { return bundle.directoryURL / "disk.qcow2.restoring"; }
    Path mark(const UUID& snapshot, const char* name) const {
        return Node::directory(bundle, snapshot) / name;
    }

    /// The live disk gets a cluster of its own and one that every layer has.
    void guestWrites(const std::string& name);
    /// In the place of whatever the bundle holds.
    void buildTree();

    /// What a guest reads of the live disk and of every snapshot whose content counts.
    Contents contents() const;
    /// The bytes of everything in the storage folder, or in one of it; links stand for themselves.
    std::map<Path, std::string> files(const std::string& folder = {}) const;

  private:
    static constexpr auto copyOptions = std::filesystem::copy_options::recursive;

    void buildByCaptures();
};

}  // namespace dorvane::test
