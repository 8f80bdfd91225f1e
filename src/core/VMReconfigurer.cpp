// SPDX-License-Identifier: Apache-2.0
#include "core/VMReconfigurer.h"

#include "base/Localized.h"
#include "core/VMBundleReading.h"
#include "core/VMRunControl.h"

namespace dorvane {
namespace {

constexpr auto secureBootVersion = OperatingSystemVersion{27, 0, 0};

template <typename... Arguments>
DorvaneError refusal(const char* message, const Arguments&... arguments) {
    return DorvaneError(DorvaneError::Case::invalidConfiguration, localized(message, arguments...));
}

template <typename Field, typename Value>
void assignGiven(Field& field, const std::optional<Value>& value) {
    if (value) field = *value;
}

void requireReachable(const VMBundle& bundle) {
    std::error_code ignored;
    if (!std::filesystem::exists(bundle.directoryURL, ignored))
        throw refusal(
            "Dorvane can't read this VM's files at %@. If they are on an external disk, connect it. "
            "Otherwise choose "
            "the folder again in Settings > Storage.",
            bundle.directoryURL.string());
    requireComplete(bundle, DorvaneError::Case::invalidConfiguration);
}

void applyDiskSize(const VMConfiguration& request, DorvaneVMConfig& config) {
    if (!request.diskSizeGB) return;
    const auto bytes = static_cast<std::uint64_t>(*request.diskSizeGB) << 30;
    if (bytes < config.diskSizeBytes)
        throw refusal("The system disk can only grow; shrinking is not supported.");
    config.diskSizeBytes = bytes;
}

void applyLinuxFields(const VMConfiguration& request, DorvaneVMConfig& config, const HostSystem& host) {
    assignGiven(config.linuxRosetta, request.linuxRosetta);
    assignGiven(config.linuxClipboard, request.linuxClipboard);
    assignGiven(config.linuxGuestAgent, request.linuxGuestAgent);
    if (request.linuxSecureBoot == true && host.version() < secureBootVersion)
        throw refusal("Secure Boot for Linux guests needs macOS 27 or later on this Mac.");
    assignGiven(config.linuxSecureBoot, request.linuxSecureBoot);
}

void applyShares(bool enabled, DorvaneVMConfig& config, const WindowsGuestSupport* support) {
    auto shares = config.windowsShares.value_or(WindowsSharesConfig());
    shares.enabled = enabled;
    if (shares.hostPort == 0 || shares.token.empty()) {
        if (support == nullptr) throw refusal("This version of Dorvane does not include Windows support.");
        shares.hostPort = support->pickFreeSharesPort();
        shares.token = support->makeSharesToken();
    }
    config.windowsShares = shares;
}

void applyWindowsFields(const VMConfiguration& request, DorvaneVMConfig& config,
                        const WindowsGuestSupport* support) {
    assignGiven(config.windowsClipboard, request.windowsClipboard);
    if (request.windowsShares) applyShares(*request.windowsShares, config, support);
    assignGiven(config.windowsFileDrop, request.windowsFileDrop);
    assignGiven(config.windowsGraphics, request.windowsGraphics);
}

void applyToRecord(const VMConfiguration& request, const DorvaneVMConfig& config, VMRecord& vm) {
    vm.cpuCount = config.cpuCount;
    vm.memoryMB = static_cast<std::int64_t>(config.memoryBytes >> 20);
    vm.diskSizeBytes = static_cast<std::int64_t>(config.diskSizeBytes);
    vm.displayResolution = DisplayResolution{config.display.widthInPixels, config.display.heightInPixels};
    assignGiven(vm.sharedFolders, request.sharedFolders);
    assignGiven(vm.pendingInstallerImagePath, request.pendingInstallerImagePath);
    assignGiven(vm.mountedImages, request.mountedImages);
    assignGiven(vm.usbStorageDevices, request.usbStorageDevices);
    assignGiven(vm.bookmarksByPath, request.bookmarksByPath);
}

}  // namespace

DorvaneVMConfig applying(const VMConfiguration& request, DorvaneVMConfig config, const HostSystem& host,
                         const WindowsGuestSupport* windowsSupport) {
    if (request.cpuCount) config.cpuCount = static_cast<int>(*request.cpuCount);
    if (request.memoryMB) config.memoryBytes = static_cast<std::uint64_t>(*request.memoryMB) << 20;
    applyDiskSize(request, config);
    if (const auto& size = request.displayResolution)
        config.display = {size->width, size->height, VMDisplayConfig::standardPixelsPerInch};
    if (config.os == VMOSType::linux) applyLinuxFields(request, config, host);
    if (config.os == VMOSType::windows) applyWindowsFields(request, config, windowsSupport);
    assignGiven(config.network, request.network);
    assignGiven(config.audioInput, request.audioInput);
    assignGiven(config.audioOutput, request.audioOutput);
    assignGiven(config.serialConsole, request.serialConsole);
    return config;
}

Task<void> VMReconfigurer::update(VMRecordPointer vm, VMConfiguration request) {
    request.validateRanges();
    if (with_.recovery != nullptr) co_await with_.recovery->recover(vm);
    if (!runControl_.isShutDown(*vm)) throw refusal("Shut down the VM before changing its configuration.");
    const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
    const auto token = access_.begin(*vm);
    const auto work = [this, bundle = vm->bundle(), &request] { return rewrite(bundle, request); };
    const auto config = co_await with_.runtime.background.run(work);
    applyToRecord(request, config, *vm);
    vm->updatedAt = with_.runtime.clock.date();
    library_.commit();
}

/// On a background thread: all checks, then the disk, then the file.
DorvaneVMConfig VMReconfigurer::rewrite(const VMBundle& bundle, const VMConfiguration& request) const {
    requireReachable(bundle);
    const auto present = readConfiguration(bundle);
    auto config = applying(request, present, with_.host, with_.windowsSupport);
    if (config.diskSizeBytes > present.diskSizeBytes) growSystemDisk(bundle, config.os, config.diskSizeBytes);
    if (config.os == VMOSType::windows) bundle.removeStrayRawDiskIfEmpty();
    config.write(bundle.configFile());
    return config;
}

void VMReconfigurer::growSystemDisk(const VMBundle& bundle, VMOSType os, std::uint64_t bytes) const {
    if (os != VMOSType::windows) return bundle.allocateSparseDiskImage(bytes);
    const auto tool = with_.windowsSupport == nullptr ? nullptr : with_.windowsSupport->diskImageTool();
    if (tool == nullptr) throw refusal("The disk image tool is missing from this build.");
    tool->resizeImage(bundle.qcow2Disk(), bytes);
}

}  // namespace dorvane
