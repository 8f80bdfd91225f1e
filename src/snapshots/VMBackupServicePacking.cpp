// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupServicePacking.h"

#include <algorithm>

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "snapshots/ArchiveWriterFile.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

/// What `stat` counts blocks in, whatever the file system's are.
constexpr std::uint64_t statBlockBytes = 512;
/// The bundle's name in archives where its own can't stand or means something else.
constexpr auto plainDirectoryName = "VM";

DorvaneError backupFailure(std::string reason) {
    return DorvaneError(DorvaneError::Case::vmBackupFailed, std::move(reason));
}

bool isListed(const struct stat& info) {
    return S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISLNK(info.st_mode);
}

void list(const Path& directory, const std::string& prefix, std::vector<VMBackupItem>& items) {
    std::vector<std::string> names;
    std::error_code failure;
    auto entry = fs::directory_iterator(directory, failure);
    for (; !failure && entry != fs::directory_iterator(); entry.increment(failure))
        names.push_back(entry->path().filename().string());
    if (failure) throw FileError("read", directory, failure.value());
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        VMBackupItem item;
        item.name = prefix + name;
        if (::lstat((directory / name).c_str(), &item.info) != 0)
            throw FileError("read", directory / name, errno);
        if (!isListed(item.info)) continue;
        item.kind = S_ISDIR(item.info.st_mode)   ? ArchiveEntryKind::directory
                    : S_ISLNK(item.info.st_mode) ? ArchiveEntryKind::link
                                                 : ArchiveEntryKind::file;
        items.push_back(item);
        if (item.kind == ArchiveEntryKind::directory) list(directory / name, item.name + "/", items);
    }
}

std::uint64_t fileBytes(const VMBackupItem& item) {
    return item.kind == ArchiveEntryKind::file ? static_cast<std::uint64_t>(item.info.st_size) : 0;
}

std::uint64_t dataBytes(const VMBackupItem& item) {
    return std::min(fileBytes(item), static_cast<std::uint64_t>(item.info.st_blocks) * statBlockBytes);
}

template <typename Count>
std::uint64_t total(const std::vector<VMBackupItem>& items, Count count) {
    std::uint64_t sum = 0;
    for (const auto& item : items) sum += count(item);
    return sum;
}

std::string archivedDirectoryName(const VMBundle& bundle) {
    const auto name = bundle.name();
    const bool isTaken = name == VMBackupManifest::fileName || name == VMBackupRecordSnapshot::fileName ||
                         name == "__MACOSX" || name.starts_with('.');
    return isTaken || !isSafeArchiveName(name) ? plainDirectoryName : name;
}

void addLink(ArchiveWriter& archive, const std::string& name, const Path& path, const struct stat& info) {
    std::error_code failure;
    const auto target = fs::read_symlink(path, failure).string();
    if (failure) throw FileError("read", path, failure.value());
    if (!isSafeArchiveLink(name, target))
        throw backupFailure(localized(
            "\"%@\" is a link to a place outside of the VM, which a backup can't hold.", path.string()));
    archive.addLink(name, target, info);
}

void addBundle(ArchiveWriter& archive, const VMBundle& bundle, const std::vector<VMBackupItem>& items,
               const VMBackupStepObserver& step) {
    const auto root = archivedDirectoryName(bundle);
    struct stat info {};
    if (::stat(bundle.directoryURL.c_str(), &info) != 0) throw FileError("read", bundle.directoryURL, errno);
    archive.addDirectory(root, info);
    for (const auto& item : items) {
        if (step) step("pack " + item.name);
        const auto name = root + "/" + item.name;
        const auto path = bundle.directoryURL / item.name;
        if (item.kind == ArchiveEntryKind::directory)
            archive.addDirectory(name, item.info);
        else if (item.kind == ArchiveEntryKind::link)
            addLink(archive, name, path, item.info);
        else
            archive.addFile(name, path);
    }
}

/// Packing into the bundle itself would have no end, and would change it.
void requireOutside(const Path& destination, const VMBundle& bundle) {
    std::error_code ignored;
    if (fs::is_directory(destination, ignored))
        throw backupFailure(localized("There is a folder at %@.", destination.string()));
    const auto inner = fs::weakly_canonical(destination, ignored);
    const auto outer = fs::weakly_canonical(bundle.directoryURL, ignored);
    if (std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end())
        throw backupFailure(localized("Choose a place outside of the VM's own directory."));
}

}  // namespace

std::vector<VMBackupItem> listBackupItems(const Path& directory) {
    std::vector<VMBackupItem> items;
    list(directory, "", items);
    return items;
}

std::uint64_t logicalBytes(const Path& of) { return total(listBackupItems(of), fileBytes); }

void packBackup(VMBackupPackOrder order, ArchiveControl& control) {
    const auto step = [&](const char* name) {
        control.check();
        if (order.step) order.step(name);
    };
    requireOutside(order.destination, order.bundle);
    const auto items = listBackupItems(order.bundle.directoryURL);
    control.expect(total(items, dataBytes));
    order.manifest.uncompressedBytes = total(items, fileBytes);

    step("make archive");
    ArchiveScratchFile::sweep(order.destination.parent_path());
    ArchiveScratchFile file(order.destination);
    ArchiveWriter archive(file.fd(), order.destination, control);
    const auto now = std::chrono::system_clock::to_time_t(order.manifest.createdAt);
    step("write descriptions");
    archive.addText(VMBackupManifest::fileName, prettyJSON(order.manifest.encoded()), now);
    archive.addText(VMBackupRecordSnapshot::fileName, prettyJSON(order.record.encoded()), now);
    addBundle(archive, order.bundle, items, order.step);
    step("finish archive");
    archive.finish();
    step("take the place");
    control.check();
    file.publish();
}

}  // namespace dorvane
