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

    FakeChainScene() {
        std::filesystem::create_directory(bundle.directoryURL);
        FakeChainTool::createDisk(bundle.qcow2Disk());
    }

    static UUID id(char letter) {
        return *UUID::parse("ABCDEF00-0000-4000-8000-00000000000" + std::string(1, letter));
    }
    Path disk(const UUID& snapshot) const { return Node::snapshot(snapshot).diskURL(bundle); }
    Path live() const { return bundle.qcow2Disk(); }
    Path discarded() const { return bundle.directoryURL / "disk.qcow2.discarded"; }
    Path restoring() const { return bundle.directoryURL / "disk.qcow2.restoring"; }
    Path mark(const UUID& snapshot, const char* name) const {
        return Node::directory(bundle, snapshot) / name;
    }

    /// The live disk gets a cluster of its own and one that every layer has.
    void guestWrites(const std::string& name) {
        FakeChainTool::guestWrites(live(), name, name + "'s own");
        FakeChainTool::guestWrites(live(), "common", "by " + name);
    }
    /// In the place of whatever the bundle holds.
    void buildTree() {
        static const TemporaryDirectory built;
        if (!std::filesystem::exists(built / "disk.qcow2")) {
            buildByCaptures();
            std::filesystem::copy(bundle.directoryURL, built.path(), copyOptions);
        }
        std::filesystem::remove_all(bundle.directoryURL);
        std::filesystem::copy(built.path(), bundle.directoryURL, copyOptions);
        tool->startCounting();
    }

    /// What a guest reads of the live disk and of every snapshot whose content counts.
    Contents contents() const {
        Contents all{{"live", FakeChainTool::content(live())}};
        for (const auto& snapshot : store.snapshotIDsOnDisk(bundle))
            if (!std::filesystem::exists(mark(snapshot, ".merging")))
                all[snapshot.text()] = FakeChainTool::content(disk(snapshot));
        return all;
    }
    /// The bytes of everything in the storage folder; links stand for themselves.
    std::map<Path, std::string> files() const {
        std::map<Path, std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(storage.path())) {
            const auto status = entry.symlink_status();
            all[entry.path()] = std::filesystem::is_symlink(status)
                                    ? "-> " + read_symlink(entry.path()).string()
                                : std::filesystem::is_directory(status) ? "directory"
                                                                        : readTextFile(entry.path());
        }
        return all;
    }

  private:
    static constexpr auto copyOptions = std::filesystem::copy_options::recursive;

    void capture(const UUID& snapshot) {
        guestWrites(snapshot.text().substr(35));
        store.capture(bundle, snapshot);
        writeFileAtomically(Node::directory(bundle, snapshot) / "meta.json", std::string_view("{}"));
    }
    void buildByCaptures() {
        for (const auto& snapshot : {A, B, C}) capture(snapshot);
        store.restore(bundle, A);
        for (const auto& snapshot : {D, E}) capture(snapshot);
        store.restore(bundle, D);
        capture(F);
        store.restore(bundle, C);
        guestWrites("live");
    }
};

}  // namespace dorvane::test
