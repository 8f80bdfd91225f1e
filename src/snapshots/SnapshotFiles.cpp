// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotFiles.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

void removeItem(const Path& path) {
    std::error_code error;
    fs::remove_all(path, error);
    if (error) throw FileError("remove", path, error.value());
}

}  // namespace

Path SnapshotFiles::nvramFile(const VMBundle& bundle, VMOSType os) {
    switch (os) {
        case VMOSType::macOS:
            return bundle.auxiliaryStorage();
        case VMOSType::linux:
            return bundle.efiVariableStore();
        case VMOSType::windows:
            return bundle.nvram();
    }
    throw std::logic_error("unknown guest family");
}

void SnapshotFiles::removeState() const {
    removeItem(state());
    removeItem(stateDevices());
}

void SnapshotFiles::remove() const {
    if (!isThere(directory)) return;
    const Path doomed = directory.string() + ".deleted";
    removeItem(doomed);
    fs::rename(directory, doomed);
    removeItem(doomed);
}

void SnapshotFileCopier::cloneDisk(const VMBundle& from, const SnapshotFiles& to, VMOSType os) const {
    fileManager_.copyItem(from.systemDisk(os), to.disk(os));
    cloneSettings(from, to, os);
}

void SnapshotFileCopier::cloneSettings(const VMBundle& from, const SnapshotFiles& to, VMOSType os) const {
    // A machine that has never been started has no variables yet.
    const auto nvram = SnapshotFiles::nvramFile(from, os);
    if (isThere(nvram)) fileManager_.copyItem(nvram, to.nvram(os));
    fileManager_.copyItem(from.configFile(), to.config());
}

void SnapshotFileCopier::stage(const Path& source, const Path& destination) const {
    discardStaged(destination);
    fileManager_.copyItem(source, stagedCopy(destination));
}

void SnapshotFileCopier::commitStaged(const Path& destination) {
    const auto staged = stagedCopy(destination);
    if (!isThere(staged)) return;
    std::error_code error;
    fs::rename(staged, destination, error);
    if (error) throw FileError("replace", destination, error.value());
}

void SnapshotFileCopier::discardStaged(const Path& destination) { removeItem(stagedCopy(destination)); }

void SnapshotFileCopier::replaceFile(const Path& destination, const Path& source) const {
    try {
        stage(source, destination);
        commitStaged(destination);
    } catch (...) {
        std::error_code ignored;
        fs::remove(stagedCopy(destination), ignored);
        throw;
    }
}

}  // namespace dorvane
