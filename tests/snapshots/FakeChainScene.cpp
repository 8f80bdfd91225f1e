// SPDX-License-Identifier: Apache-2.0
#include "snapshots/FakeChainScene.h"

namespace dorvane::test {

FakeChainScene::FakeChainScene() {
    std::filesystem::create_directory(bundle.directoryURL);
    FakeChainTool::createDisk(bundle.qcow2Disk());
}

void FakeChainScene::guestWrites(const std::string& name) {
    FakeChainTool::guestWrites(live(), name, name + "'s own");
    FakeChainTool::guestWrites(live(), "common", "by " + name);
}

void FakeChainScene::buildTree() {
    static const TemporaryDirectory built;
    if (!std::filesystem::exists(built / "disk.qcow2")) {
        buildByCaptures();
        std::filesystem::copy(bundle.directoryURL, built.path(), copyOptions);
    }
    std::filesystem::remove_all(bundle.directoryURL);
    std::filesystem::copy(built.path(), bundle.directoryURL, copyOptions);
    tool->startCounting();
}

FakeChainScene::Contents FakeChainScene::contents() const {
    Contents all{{"live", FakeChainTool::content(live())}};
    for (const auto& snapshot : store.snapshotIDsOnDisk(bundle))
        if (!std::filesystem::exists(mark(snapshot, ".merging")))
            all[snapshot.text()] = FakeChainTool::content(disk(snapshot));
    return all;
}

std::map<Path, std::string> FakeChainScene::files(const std::string& folder) const {
    std::map<Path, std::string> all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(storage / folder)) {
        const auto status = entry.symlink_status();
        all[entry.path()] = std::filesystem::is_symlink(status) ? "-> " + read_symlink(entry.path()).string()
                            : std::filesystem::is_directory(status) ? "directory"
                                                                    : readTextFile(entry.path());
    }
    return all;
}

void FakeChainScene::buildByCaptures() {
    const auto capture = [this](const UUID& snapshot) {
        guestWrites(snapshot.text().substr(35));
        store.capture(bundle, snapshot);
        writeFileAtomically(mark(snapshot, "meta.json"), "{}");
    };
    for (const auto& snapshot : {A, B, C}) capture(snapshot);
    store.restore(bundle, A);
    for (const auto& snapshot : {D, E}) capture(snapshot);
    store.restore(bundle, D);
    capture(F);
    store.restore(bundle, C);
    guestWrites("live");
}

}  // namespace dorvane::test
