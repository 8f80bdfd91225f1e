// SPDX-License-Identifier: Apache-2.0
#include "core/VMBundle.h"

#include "base/Localized.h"
#include "core/DiskImageTool.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

void removeFile(const Path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

std::uint64_t fileSize(const Path& path) {
    std::error_code failure;
    const auto size = fs::file_size(path, failure);
    return failure ? 0 : size;
}

DorvaneError creationFailure(const char* message, const Path& path) {
    return DorvaneError(DorvaneError::Case::vmCreationFailed, localized(message, path.string()));
}

void makeDirectory(const Path& directory) {
    std::error_code failure;
    if (fs::exists(fs::symlink_status(directory, failure)))
        throw creationFailure("VM directory already exists at %@", directory);
    if (!fs::create_directories(directory, failure)) {
        if (!failure) throw creationFailure("VM directory already exists at %@", directory);
        throw FileError("create", directory, failure.value());
    }
}

/// Makes the directory and its disk; takes the directory away again when the disk fails.
template <typename MakeDisk>
VMBundle createBundle(const Path& directory, const MakeDisk& makeDisk) {
    makeDirectory(directory);
    VMBundle bundle(directory);
    try {
        makeDisk(bundle);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
        throw;
    }
    return bundle;
}

}  // namespace

VMBundle VMBundle::create(const Path& directory, std::uint64_t diskSizeBytes) {
    return createBundle(directory,
                        [&](const VMBundle& bundle) { bundle.allocateSparseDiskImage(diskSizeBytes); });
}

VMBundle VMBundle::createForQEMU(const Path& directory, std::uint64_t diskSizeBytes,
                                 const DiskImageTool& tool) {
    return createBundle(directory,
                        [&](const VMBundle& bundle) { tool.createImage(bundle.qcow2Disk(), diskSizeBytes); });
}

void VMBundle::allocateSparseDiskImage(std::uint64_t sizeBytes) const {
    const bool isNew = !fileExists(rawDisk());
    try {
        truncateFile(rawDisk(), sizeBytes);
    } catch (const FileError&) {
        if (isNew && !fileExists(rawDisk()))
            throw creationFailure("Could not create disk image at %@", rawDisk());
        throw;
    }
}

bool VMBundle::isValid() const {
    return fileExists(configFile()) && (fileExists(rawDisk()) || fileExists(qcow2Disk()));
}

bool VMBundle::hasSavedState() const { return fileExists(savedState()); }

void VMBundle::discardSavedState() const {
    for (const auto& file : {savedState(), savedStateHash(), savedStateDevices()}) removeFile(file);
}

void VMBundle::writeEphemeralMarker(const EphemeralInfo& info) const {
    writeFileAtomically(ephemeralMarker(), prettyJSON(info.encoded()));
}

void VMBundle::removeEphemeralMarker() const { removeFile(ephemeralMarker()); }

void VMBundle::removeStrayRawDiskIfEmpty() const {
    std::error_code failure;
    if (fileExists(qcow2Disk()) && fs::file_size(rawDisk(), failure) == 0 && !failure) removeFile(rawDisk());
}

std::uint64_t VMBundle::diskImageLogicalSize() const { return fileSize(rawDisk()); }

std::uint64_t VMBundle::systemDiskLogicalSize(VMOSType os) const { return fileSize(systemDisk(os)); }

}  // namespace dorvane
