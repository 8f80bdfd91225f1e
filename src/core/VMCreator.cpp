// SPDX-License-Identifier: Apache-2.0
#include "core/VMCreator.h"

#include "base/Localized.h"
#include "core/BackupExclusion.h"
#include "core/DorvaneError.h"
#include "core/VMDirectoryRemoval.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

constexpr auto defaultCPUCount = 4;
constexpr auto defaultMemoryMB = 4096;
constexpr auto defaultDiskSizeGB = 64;
constexpr auto defaultResolution = DisplayResolution{1440, 900};
constexpr auto windowsMachineType = "virt-11.1";

DorvaneError vmCreationFailure(std::string reason) {
    return DorvaneError(DorvaneError::Case::vmCreationFailed, std::move(reason));
}

/// What every guest family has in common.
DorvaneVMConfig baseConfiguration(VMOSType os, const VMConfiguration& request, const HostSystem& host) {
    const auto resolution = request.displayResolution.value_or(defaultResolution);
    DorvaneVMConfig config;
    config.os = os;
    config.cpuCount = static_cast<int>(request.cpuCount.value_or(defaultCPUCount));
    config.memoryBytes = static_cast<std::uint64_t>(request.memoryMB.value_or(defaultMemoryMB)) << 20;
    config.diskSizeBytes = static_cast<std::uint64_t>(request.diskSizeGB.value_or(defaultDiskSizeGB)) << 30;
    config.macAddress = host.randomMACAddress();
    config.display = {resolution.width, resolution.height, VMDisplayConfig::standardPixelsPerInch};
    config.network = request.network;
    config.audioInput = request.audioInput;
    config.audioOutput = request.audioOutput;
    return config;
}

/// A bundle without its configuration is invisible to the library and in the way of the next attempt.
void writeOrRemove(const DorvaneVMConfig& config, const VMBundle& bundle) {
    try {
        config.write(bundle.configFile());
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(bundle.directoryURL, ignored);
        throw;
    }
}

DorvaneVMConfig makeLinuxBundle(const Path& directory, const VMConfiguration& request,
                                const HostSystem& host) {
    auto config = baseConfiguration(VMOSType::linux, request, host);
    config.linuxPlatform = LinuxPlatformIdentity{host.newGenericMachineIdentifier()};
    config.linuxRosetta = request.linuxRosetta;
    config.linuxClipboard = request.linuxClipboard.value_or(true);
    config.linuxGuestAgent = request.linuxGuestAgent.value_or(true);
    config.serialConsole = request.serialConsole;
    writeOrRemove(config, VMBundle::create(directory, config.diskSizeBytes));
    return config;
}

DorvaneVMConfig makeWindowsBundle(const Path& directory, const VMConfiguration& request,
                                  const HostSystem& host, const WindowsGuestSupport* support) {
    if (support != nullptr)
        if (auto reason = support->unavailableReason()) throw vmCreationFailure(std::move(*reason));
    const auto tool = support == nullptr ? nullptr : support->diskImageTool();
    if (tool == nullptr)
        throw vmCreationFailure(localized("This version of Dorvane does not include Windows support."));
    auto config = baseConfiguration(VMOSType::windows, request, host);
    config.windowsPlatform = WindowsPlatformIdentity{windowsMachineType, true, true};
    config.windowsClipboard = request.windowsClipboard.value_or(true);
    config.windowsFileDrop = request.windowsFileDrop.value_or(true);
    config.windowsShares = WindowsSharesConfig{request.windowsShares.value_or(true),
                                               support->pickFreeSharesPort(), support->makeSharesToken()};
    writeOrRemove(config, VMBundle::createForQEMU(directory, config.diskSizeBytes, *tool));
    return config;
}

}  // namespace

struct VMCreator::Made {
    DorvaneVMConfig config;
    std::optional<std::string> osVersionLabel = {};
    std::optional<std::string> imageSource = {};
};

Task<VMRecordPointer> VMCreator::create(std::string name, VMOSType os, VMConfiguration request) {
    VMNameRules::validate(name);
    request.validateRanges();
    library_.sync();
    const Path storagePath = request.storagePath ? Path(*request.storagePath) : with_.settings.storagePath();
    const Path directory = (storagePath / name).lexically_normal();
    const VMLibrary::Reservation reservation(library_, name, directory.string());
    const bool isProvisioned =
        os == VMOSType::macOS && request.macProvisioning && with_.provisioningStore != nullptr;
    if (isProvisioned) with_.provisioningStore->validate(*request.macProvisioning);

    const auto made = co_await make(os, directory, request);
    const auto vm = record(name, directory, made, request);
    std::exception_ptr failure;
    try {
        library_.add(vm);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await ignoreCancellation();
        co_await removeDirectory(with_.runtime, directory);
        std::rethrow_exception(failure);
    }
    if (isProvisioned) with_.provisioningStore->save(vm->id, vm->bundle(), *request.macProvisioning);
    vmServiceLogger.info("Created VM: %s", vm->name);
    co_return vm;
}

Task<VMCreator::Made> VMCreator::make(VMOSType os, Path directory, VMConfiguration request) {
    if (os == VMOSType::macOS) co_return co_await installMacOS(std::move(directory), std::move(request));
    const auto work = [&] {
        Made made{os == VMOSType::linux
                      ? makeLinuxBundle(directory, request, with_.host)
                      : makeWindowsBundle(directory, request, with_.host, with_.windowsSupport)};
        BackupExclusion::excludeFromBackup(with_.fileManager, directory);
        return made;
    };
    co_return co_await with_.runtime.background.run(work);
}

Task<VMCreator::Made> VMCreator::installMacOS(Path directory, VMConfiguration request) {
    if (with_.macOSInstaller == nullptr)
        throw vmCreationFailure(localized("This version of Dorvane cannot install macOS on this host."));
    const auto base = baseConfiguration(VMOSType::macOS, request, with_.host);
    MacOSInstallRequest order;
    order.directory = directory;
    order.cpuCount = base.cpuCount;
    order.memoryMB = static_cast<std::int64_t>(base.memoryBytes >> 20);
    order.diskSizeBytes = base.diskSizeBytes;
    order.display = base.display;
    order.storagePath = directory.parent_path();
    const std::function<void(MacOSInstallPhase)> onProgress = [this](MacOSInstallPhase phase) {
        publish(phase);
    };
    const auto label = localized("Installing macOS");
    std::exception_ptr failure;
    std::optional<MacOSInstallResult> result;
    try {
        auto installation = with_.macOSInstaller->installLatestMacOS(order, onProgress);
        result = co_await with_.longOperations.track(label, std::move(installation));
    } catch (...) {
        failure = std::current_exception();
    }
    publish(std::nullopt);
    if (failure) std::rethrow_exception(failure);
    BackupExclusion::excludeFromBackup(with_.fileManager, directory);
    co_return Made{std::move(result->config), std::move(result->osVersionLabel),
                   std::move(result->imageSource)};
}

void VMCreator::publish(std::optional<MacOSInstallPhase> phase) {
    macOSInstallPhase_ = phase;
    macOSInstallPhaseChanged();
}

VMRecordPointer VMCreator::record(const std::string& name, const Path& directory, const Made& made,
                                  const VMConfiguration& request) const {
    auto vm = std::make_shared<VMRecord>();
    vm->name = name;
    vm->osType = made.config.os;
    vm->osVersionLabel = made.osVersionLabel;
    vm->imageSource = made.imageSource;
    vm->vmPath = directory.string();
    vm->diskSizeBytes = static_cast<std::int64_t>(made.config.diskSizeBytes);
    vm->memoryMB = static_cast<std::int64_t>(made.config.memoryBytes >> 20);
    vm->cpuCount = made.config.cpuCount;
    vm->createdAt = vm->updatedAt = with_.runtime.clock.date();
    vm->sharedFolders = request.sharedFolders.value_or(std::vector<SharedFolder>());
    vm->pendingInstallerImagePath = request.pendingInstallerImagePath;
    vm->mountedImages = request.mountedImages;
    vm->usbStorageDevices = request.usbStorageDevices;
    vm->bookmarksByPath = request.bookmarksByPath;
    vm->displayResolution =
        DisplayResolution{made.config.display.widthInPixels, made.config.display.heightInPixels};
    return vm;
}

}  // namespace dorvane
