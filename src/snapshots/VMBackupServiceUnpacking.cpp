// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupServiceUnpacking.h"

#include <fcntl.h>

#include <set>

#include "base/Localized.h"
#include "core/BackupExclusion.h"
#include "core/ByteCountText.h"
#include "core/DorvaneError.h"
#include "core/VMIdentityFactory.h"
#include "snapshots/ArchiveReaderExtract.h"
#include "snapshots/HolePunching.h"
#include "snapshots/SnapshotChainLayout.h"
#include "snapshots/SnapshotIdentity.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t maximumDescriptionBytes = 4 << 20;
/// What files of another archiver's may come to above the manifest's value.
constexpr std::uint64_t toleratedExcessBytes = 64 << 20;
/// More than deflate makes of anything: a mebibyte of zeros takes above a thousandth of it.
constexpr std::uint64_t deflateLimit = 1000;
/// Room that a restore leaves to everybody else, and how often it looks.
constexpr std::uint64_t reservedBytes = 16 << 20;
constexpr std::uint64_t bytesBetweenLooks = 16 << 20;

DorvaneError restoreFailure(std::string reason) {
    return DorvaneError(DorvaneError::Case::vmRestoreFailed, std::move(reason));
}

std::string rootOf(const std::string& name) { return name.substr(0, name.find('/')); }

/// What file browsers leave in archives.
bool isCompanion(const std::string& root) { return root.starts_with('.') || root == "__MACOSX"; }

/// Stops before the disk is full.
class RoomWatch {
  public:
    RoomWatch(FileManager& fileManager, Path folder)
        : fileManager_(fileManager), folder_(std::move(folder)) {}

    void operator()(std::uint64_t count) {
        untilLook_ -= std::min(untilLook_, count);
        if (untilLook_ > 0) return;
        untilLook_ = bytesBetweenLooks;
        const auto available = fileManager_.availableCapacity(folder_);
        if (available < reservedBytes)
            throw restoreFailure(localized("The disk is full: only %@ are left at %@.",
                                           byteCountText(static_cast<std::int64_t>(available)),
                                           folder_.string()));
    }

  private:
    FileManager& fileManager_;
    Path folder_;
    std::uint64_t untilLook_ = 0;
};

void moveIntoPlace(const Path& from, const Path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    int number = errno;
    // Not every file system knows how not to replace; a directory with something in it is safe anyway.
    if (number == EINVAL && !fs::exists(fs::symlink_status(to)))
        number = ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
    if (number == EEXIST || number == ENOTEMPTY)
        throw restoreFailure(localized("The restore destination already exists at %@.", to.string()));
    if (number != 0) throw FileError("write", to, number);
}

}  // namespace

VMBackupArchive::VMBackupArchive(const Path& path) : reader_(std::make_unique<ArchiveFileSource>(path)) {
    readDescriptions();
    findDirectory();
    requireComplete();
    requirePlausibleSize();
}

JSON VMBackupArchive::archivedJSON(const char* name) const {
    const auto* entry = reader_.find(name);
    if (entry == nullptr || entry->kind != ArchiveEntryKind::file)
        throw restoreFailure(localized("The file is not a backup of a VM: it holds no \"%@\".", name));
    return parseJSON(reader_.readText(*entry, maximumDescriptionBytes));
}

void VMBackupArchive::readDescriptions() {
    const char* name = VMBackupManifest::fileName;
    try {
        const auto value = archivedJSON(name);
        // A later format may have other keys altogether.
        const auto version = JSONReader(value, "The manifest").required<std::int64_t>("formatVersion");
        if (version > VMBackupManifest::currentFormatVersion)
            throw restoreFailure(localized(
                "The backup was made by a newer version of Dorvane (backup format %lld).", version));
        if (version < 1) throw JSONError("The value of \"formatVersion\" is out of range.");
        manifest_ = VMBackupManifest::decoded(value);
        name = VMBackupRecordSnapshot::fileName;
        record_ = VMBackupRecordSnapshot::decoded(archivedJSON(name));
    } catch (const JSONError& error) {
        throw restoreFailure(localized("The backup's \"%@\" can't be read: %@", name, error.what()));
    }
}

void VMBackupArchive::findDirectory() {
    std::set<std::string> roots;
    for (const auto& entry : reader_.entries()) {
        const auto root = rootOf(entry.name);
        const bool isDirectory = root != entry.name || entry.kind == ArchiveEntryKind::directory;
        if (isDirectory && !isCompanion(root)) roots.insert(root);
    }
    if (roots.empty()) throw restoreFailure(localized("The backup holds no VM directory."));
    if (roots.size() > 1) throw restoreFailure(localized("The backup holds more than one VM directory."));
    directoryName_ = *roots.begin();
}

bool VMBackupArchive::isPartOfVM(const ArchiveEntry& entry) const {
    return rootOf(entry.name) == directoryName_;
}

void VMBackupArchive::requireComplete() const {
    const VMBundle bundle{Path(directoryName_)};
    const auto holds = [&](const Path& path) { return reader_.find(path.string()) != nullptr; };
    if (!holds(bundle.configFile()) || !(holds(bundle.rawDisk()) || holds(bundle.qcow2Disk())) ||
        holds(bundle.installingMarker()))
        throw restoreFailure(
            localized("The backup holds no complete VM: its config or system disk is missing."));
}

void VMBackupArchive::requirePlausibleSize() const {
    const auto& claimed = manifest_.uncompressedBytes;
    if (claimed && reader_.uncompressedBytes() > toleratedExcessBytes &&
        reader_.uncompressedBytes() - toleratedExcessBytes > *claimed)
        throw restoreFailure(localized("The archive holds more than its manifest says."));
}

std::uint64_t VMBackupArchive::expectedUncompressedBytes() const {
    return manifest_.uncompressedBytes.value_or(reader_.uncompressedBytes());
}

std::uint64_t VMBackupArchive::leastDiskBytes() const {
    std::uint64_t least = 0;
    for (const auto& entry : reader_.entries())
        if (isPartOfVM(entry))
            least += entry.compressedSize - std::min(entry.compressedSize, entry.size / deflateLimit);
    return least;
}

std::optional<std::uint64_t> zipUncompressedBytes(const Path& of) {
    try {
        return ArchiveReader(std::make_unique<ArchiveFileSource>(of)).uncompressedBytes();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void unpackBackup(const VMBackupArchive& archive, const VMBackupInstallOrder& order,
                  ArchiveControl& control) {
    const auto storage = order.staging.parent_path();
    const auto step = [&](const std::string& name) {
        control.check();
        if (order.step) order.step(name);
    };
    control.expect(archive.expectedUncompressedBytes());
    step("make staging");
    std::error_code failure;
    fs::create_directories(storage, failure);
    if (failure) throw FileError("make", storage, failure.value());
    const auto least = archive.leastDiskBytes(), available = order.fileManager.availableCapacity(storage);
    if (least > available)
        throw DorvaneError::insufficient(DorvaneError::Case::diskSpaceInsufficient,
                                         static_cast<std::int64_t>(least),
                                         static_cast<std::int64_t>(available));
    if (::mkdir(order.staging.c_str(), 0700) != 0) throw FileError("make", order.staging, errno);

    RoomWatch room(order.fileManager, storage);
    ArchiveExtraction how;
    how.includes = [&](const ArchiveEntry& entry) { return archive.isPartOfVM(entry); };
    how.begins = [&](const ArchiveEntry& entry) { step("unpack " + entry.name); };
    how.writes = [&](std::uint64_t count) { room(count); };
    extractArchive(archive.reader(), order.staging, how, control);
}

DorvaneVMConfig installBackup(const VMBackupArchive& archive, const VMBackupInstallOrder& order,
                              ArchiveControl& control) {
    const VMBundle bundle(order.staging / archive.directoryName());
    const auto step = [&](const char* name) {
        control.check();
        if (order.step) order.step(name);
    };
    if (order.translateBundle) {
        step("translate");
        order.translateBundle(bundle);
        // Unpacking leaves holes as it is; a translation needn't.
        punchZeroHoles(bundle.directoryURL);
    }
    if (!bundle.isValid())
        throw restoreFailure(
            localized("The backup holds no complete VM: its config or system disk is missing."));
    step("give identity");
    try {
        // A backup may come from anybody: its disks must not lead to files of this host.
        if (order.chainTool != nullptr) SnapshotChainLayout(*order.chainTool, bundle).requireOwnLayers();
        rotateSnapshotIdentities(bundle, order.chainTool);
    } catch (const JSONError& error) {
        throw restoreFailure(localized("The description of a snapshot can't be read: %@", error.what()));
    }
    DorvaneVMConfig config;
    try {
        config = VMIdentityFactory::rotatedIdentity(DorvaneVMConfig::read(bundle.configFile()), order.host);
    } catch (const JSONError&) {
        throw restoreFailure(localized("Could not read the VM configuration."));
    }
    config.write(bundle.configFile());
    bundle.discardSavedState();
    // A disposable machine that was worth a backup is no longer one to dispose of.
    bundle.removeEphemeralMarker();
    BackupExclusion::excludeFromBackup(order.fileManager, bundle.directoryURL);
    step("move");
    control.check();
    moveIntoPlace(bundle.directoryURL, order.destination);
    return config;
}

}  // namespace dorvane
