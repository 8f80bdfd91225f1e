// SPDX-License-Identifier: Apache-2.0
#include "core/VMLibraryRefresher.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "core/BackupExclusion.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumMarkerBytes = 65536;

/// What a record mirrors of the machine description.
struct Hardware {
    explicit Hardware(const DorvaneVMConfig& config)
        : os(config.os),
          cpuCount(config.cpuCount),
          memoryMB(static_cast<std::int64_t>(config.memoryBytes >> 20)),
          diskSizeBytes(static_cast<std::int64_t>(config.diskSizeBytes)),
          resolution{config.display.widthInPixels, config.display.heightInPixels} {}

    bool isShown(const VMRecordFields& vm) const {
        return vm.osType == os && vm.backendModeRaw == "native" && vm.cpuCount == cpuCount &&
               vm.memoryMB == memoryMB && vm.diskSizeBytes == diskSizeBytes &&
               vm.displayResolution == resolution;
    }
    void assign(VMRecordFields& vm) const {
        vm.osType = os;
        vm.backendModeRaw = "native";
        vm.cpuCount = cpuCount;
        vm.memoryMB = memoryMB;
        vm.diskSizeBytes = diskSizeBytes;
        vm.displayResolution = resolution;
    }

    VMOSType os;
    std::int64_t cpuCount, memoryMB, diskSizeBytes;
    DisplayResolution resolution;
};

std::optional<DorvaneVMConfig> readTolerantly(const VMBundle& bundle) {
    try {
        return DorvaneVMConfig::read(bundle.configFile());
    } catch (const std::exception& error) {
        vmServiceLogger.error("Skipping %{public}s: %{public}s", bundle.directoryURL.string(), error.what());
        return std::nullopt;
    }
}

/// Whether the record changed.
bool takeOverHardware(VMRecordFields& vm, const VMLibraryRefresher::ReadBundle& read) {
    if (Hardware(*read.config).isShown(vm)) return false;
    // The machine may have been reconfigured after the scan read it: a difference is worth a second look.
    const auto config = readTolerantly(read.bundle);
    if (!config || Hardware(*config).isShown(vm)) return false;
    Hardware(*config).assign(vm);
    return true;
}

/// "/a/b" for "/a/b/" and "/a/./b".
Path normalized(const Path& path) {
    const auto normal = path.lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

/// A sandbox whose record was lost is one still, so that it goes when its time has come.
std::optional<EphemeralInfo> markedSandbox(const VMBundle& bundle) {
    try {
        const auto text = readTextFile(bundle.ephemeralMarker(), maximumMarkerBytes);
        return EphemeralInfo::decoded(parseJSON(text));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

/// What a background thread found in one storage folder.
struct VMLibraryRefresher::ReadFolder {
    std::vector<Path> removed;
    std::vector<ReadBundle> bundles;
    /// Why the folder can't be listed.
    std::optional<std::string> failure;
};

struct VMLibraryRefresher::Scan {
    std::vector<ReadBundle> bundles;
    std::size_t unreadablePaths = 0;
};

Task<void> VMLibraryRefresher::refresh() {
    library_.sync();
    std::vector<VMAccess::Token> tokens;
    for (const auto& vm : library_.vms())
        if (vm->bookmarksByPath) tokens.push_back(access_.begin(*vm));
    const auto storagePaths = storagePathsToRefresh(library_.vms());
    const auto found = co_await scan(storagePaths);

    // The list may have changed meanwhile; what was fetched before the scan is stale.
    library_.sync();
    mergeVMs(found.bundles, library_.vms());
    std::unordered_set<std::string> paths;
    for (const auto& read : found.bundles) paths.insert(read.bundle.directoryURL.string());
    std::vector<VMRecordPointer> unreachable;
    for (const auto& vm : library_.vms())
        if (!paths.contains(vm->vmPath)) unreachable.push_back(vm);
    reconcileStatusOfUnreachableVMs(unreachable);
    co_await excludeReturned(unreachable);
    library_.sync();
    vmServiceLogger.info(
        "Refreshed VM list across %ld storage path(s): %ld VM(s), %ld unreachable, %ld unreadable path(s)",
        storagePaths.size(), library_.vms().size(), unreachable.size(), found.unreadablePaths);
}

std::vector<Path> VMLibraryRefresher::storagePathsToRefresh(
    const std::vector<VMRecordPointer>& records) const {
    std::vector<Path> paths{normalized(with_.settings.storagePath())};
    std::unordered_set<std::string> known{paths.front().string()};
    for (const auto& vm : records) {
        // Records of one folder mostly follow each other: compare text before making a path of it.
        const auto folder = vm->vmPath.substr(0, vm->vmPath.find_last_of('/'));
        if (folder.empty() || !known.insert(folder).second) continue;
        auto path = normalized(folder);
        if (path == Path(folder) || known.insert(path.string()).second) paths.push_back(std::move(path));
    }
    return paths;
}

Task<VMLibraryRefresher::Scan> VMLibraryRefresher::scan(std::vector<Path> storagePaths) {
    std::set<std::string> awaitingInstallation;
    for (const auto& vm : library_.vms())
        if (vm->osType == VMOSType::linux && vm->hasPendingInstallerImage())
            awaitingInstallation.insert(vm->vmPath);

    Scan result;
    std::unordered_set<std::string> seen;
    for (const auto& path : storagePaths) {
        // A staging directory of work in progress looks like one that a crash left behind; the work may have
        // begun while an earlier folder was read.
        const bool sweeps = with_.longOperations.active().empty() && with_.gate.busyVMIDs().empty() &&
                            !library_.hasReservations();
        const auto read = [&] { return readFolder(path, sweeps, awaitingInstallation); };
        auto folder = co_await with_.runtime.background.run(read);
        for (const auto& removed : folder.removed)
            vmServiceLogger.info("Removed interrupted work from a previous session: %{public}s",
                                 removed.string());
        if (folder.failure) {
            vmServiceLogger.error("Skipping unreadable storage path %{public}s: %{public}s", path.string(),
                                  *folder.failure);
            ++result.unreadablePaths;
        }
        for (auto& bundle : folder.bundles)
            if (seen.insert(bundle.bundle.directoryURL.string()).second)
                result.bundles.push_back(std::move(bundle));
    }
    co_return result;
}

/// On a background thread: everything that one folder takes is read in one go.
VMLibraryRefresher::ReadFolder VMLibraryRefresher::readFolder(
    const Path& storagePath, bool sweeps, const std::set<std::string>& awaitingInstallation) const {
    ReadFolder folder;
    BackupExclusion::excludeFromBackup(with_.fileManager, storagePath);
    try {
        if (sweeps) folder.removed = VMBundle::sweepInterruptedWork(storagePath);
    } catch (const std::exception&) {
        // The scan meets the same failure and tells it.
    }
    try {
        for (auto& bundle : with_.bundleScanner(storagePath)) {
            BackupExclusion::excludeFromBackup(with_.fileManager, bundle.directoryURL);
            auto config = readTolerantly(bundle);
            const bool isAwaited = awaitingInstallation.contains(bundle.directoryURL.string());
            const bool showsSystem = isAwaited && flow_.showsInstalledSystem(bundle);
            folder.bundles.push_back({std::move(bundle), std::move(config), showsSystem});
        }
    } catch (const std::exception& error) {
        folder.bundles.clear();
        folder.failure = error.what();
    }
    return folder;
}

void VMLibraryRefresher::mergeVMs(const std::vector<ReadBundle>& bundles,
                                  const std::vector<VMRecordPointer>& records) {
    std::unordered_map<std::string_view, VMRecord*> byPath;
    for (const auto& vm : records) byPath.emplace(vm->vmPath, vm.get());
    bool changed = false;
    for (const auto& read : bundles) {
        if (!read.config) continue;
        const auto known = byPath.find(read.bundle.directoryURL.native());
        changed |= known == byPath.end() ? adopt(read) : mergeKnown(*known->second, read);
    }
    if (changed) library_.saveQuietly();
}

bool VMLibraryRefresher::mergeKnown(VMRecord& vm, const ReadBundle& read) {
    bool changed = takeOverHardware(vm, read);
    const auto status = with_.engine.status(vm.id).value_or(VMStatus::stopped);
    changed |= vm.status != status;
    vm.status = status;
    const bool isStamped = flow_.autoComplete(vm, read.showsInstalledSystem);
    if (changed && !isStamped) vm.updatedAt = now();
    return changed || isStamped;
}

bool VMLibraryRefresher::adopt(const ReadBundle& read) {
    // What appears while something is being made or brought in may be that very thing; its maker gives it a
    // record. And what the scan saw may have been deleted since.
    const auto path = read.bundle.directoryURL.string();
    if (library_.isReserved(path) || !with_.longOperations.active().empty() || !read.bundle.isValid())
        return false;
    const auto vm = std::make_shared<VMRecord>();
    vm->name = read.bundle.name();
    vm->vmPath = path;
    vm->createdAt = vm->updatedAt = now();
    vm->ephemeral = markedSandbox(read.bundle);
    Hardware(*read.config).assign(*vm);
    library_.insert(vm);
    return true;
}

void VMLibraryRefresher::reconcileStatusOfUnreachableVMs(const std::vector<VMRecordPointer>& vms) {
    bool changed = false;
    for (const auto& vm : vms) {
        const auto status = with_.engine.status(vm->id).value_or(VMStatus::stopped);
        if (vm->status == status) continue;
        vmServiceLogger.info(
            "VM %{public}s bundle unreachable at %{public}s; status %{public}s -> %{public}s", vm->name,
            vm->vmPath, rawValue(vm->status), rawValue(status));
        vm->status = status;
        vm->updatedAt = now();
        changed = true;
    }
    if (changed) library_.saveQuietly();
}

Task<void> VMLibraryRefresher::excludeReturned(const std::vector<VMRecordPointer>& unreachable) {
    if (unreachable.empty()) co_return;
    std::vector<VMBundle> bundles;
    for (const auto& vm : unreachable) bundles.push_back(vm->bundle());
    const auto exclude = [&] {
        for (const auto& bundle : bundles)
            if (bundle.isValid()) BackupExclusion::excludeFromBackup(with_.fileManager, bundle.directoryURL);
    };
    co_await with_.runtime.background.run(exclude);
}

}  // namespace dorvane
