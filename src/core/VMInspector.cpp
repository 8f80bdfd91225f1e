// SPDX-License-Identifier: Apache-2.0
#include "core/VMInspector.h"

#include <algorithm>
#include <fstream>

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr auto frameTimeout = seconds(10.0);
constexpr auto consoleTailBytes = std::streamoff{64} << 10;
constexpr auto consoleHeader = "=== Guest console (console.log) ===\n";

std::optional<DorvaneVMConfig> readIfPossible(const VMBundle& bundle) {
    try {
        return DorvaneVMConfig::read(bundle.configFile());
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// The last bytes of the file from a line's beginning on; empty when there is no such file.
std::string consoleTail(const Path& file) {
    std::error_code failure;
    if (!std::filesystem::is_regular_file(file, failure)) return {};
    std::ifstream stream(file, std::ios::binary | std::ios::ate);
    const auto size = static_cast<std::streamoff>(stream.tellg());
    if (!stream || size <= 0) return {};
    const auto start = std::max(std::streamoff{0}, size - consoleTailBytes);
    std::string tail(static_cast<std::size_t>(size - start), '\0');
    stream.seekg(start);
    stream.read(tail.data(), static_cast<std::streamsize>(tail.size()));
    tail.resize(static_cast<std::size_t>(stream.gcount()));
    if (start > 0)
        if (const auto lineEnd = tail.find('\n'); lineEnd != std::string::npos) tail.erase(0, lineEnd + 1);
    return repairedUTF8(asBytes(tail));
}

bool hasScreenForHost(const GuestDisplaySource::Kind& source) {
    return !std::holds_alternative<GuestDisplaySource::Virtualization>(source);
}

}  // namespace

NetworkSummary networkSummary(const DorvaneVMConfig& config,
                              const std::vector<NetworkInterface>& interfaces) {
    const auto network = config.network.value_or(NetworkConfig());
    NetworkSummary summary;
    summary.isIsolated = network.mode == NetworkConfig::Mode::isolated;
    summary.isBridged = network.mode == NetworkConfig::Mode::bridged;
    if (summary.isBridged) summary.bridgedInterfaceIdentifier = network.bridgedInterfaceIdentifier;
    summary.isBridgedOverWireless =
        summary.isBridged && std::any_of(interfaces.begin(), interfaces.end(), [&](const auto& interface) {
            return interface.isWireless && interface.identifier == network.bridgedInterfaceIdentifier;
        });
    // QEMU's user-mode network exists only inside its process.
    const bool isPrivate = config.os == VMOSType::windows && network.mode == NetworkConfig::Mode::nat;
    summary.hasHostVisibleAddress = !summary.isIsolated && !isPrivate;
    return summary;
}

std::optional<std::string> VMInspector::lastFailureReason(const VMRecord& vm) const {
    const auto reason = with_.engine.stopReason(vm.id);
    if (!reason || reason->kind != VMStopReason::Kind::failure) return std::nullopt;
    return reason->message;
}

bool VMInspector::lastStopWasForced(const VMRecord& vm) const {
    return with_.engine.stopReason(vm.id) == VMStopReason::forced();
}

Task<std::optional<VMDisplayInfo>> VMInspector::displayInfo(VMRecordPointer vm) const {
    if (vm->status != VMStatus::running && vm->status != VMStatus::paused) co_return std::nullopt;
    VMDisplayInfo info;
    if (const auto& size = vm->displayResolution)
        info.resolution = std::to_string(size->width) + "x" + std::to_string(size->height);
    info.hasUsableDisplay = with_.engine.displayHandle(vm->id).has_value();
    const auto work = [this, bundle = vm->bundle(), runningMAC = with_.engine.macAddress(vm->id),
                       info]() mutable {
        const auto config = readIfPossible(bundle);
        auto mac = runningMAC;
        if (config) {
            info.network = networkSummary(*config, with_.host.networkInterfaces());
            if (!mac) mac = config->macAddress;
        }
        if (mac && with_.addresses != nullptr) info.ipAddress = with_.addresses->ipAddress(*mac);
        info.absentAddressText = info.network.value_or(NetworkSummary()).absentAddressText();
        return info;
    };
    co_return co_await with_.runtime.background.run(work);
}

Task<std::optional<int>> VMInspector::sshForwardedPort(VMRecordPointer vm) const {
    const auto work = [bundle = vm->bundle()]() -> std::optional<int> {
        const auto config = readIfPossible(bundle);
        if (!config || !config->windowsSSH || !config->windowsSSH->enabled) return std::nullopt;
        return config->windowsSSH->hostPort;
    };
    co_return co_await with_.runtime.background.run(work);
}

Task<std::optional<Bytes>> VMInspector::captureFramebuffer(VMRecordPointer vm) const {
    const auto handle = with_.engine.displayHandle(vm->id);
    if (!handle || !hasScreenForHost(handle->source)) co_return std::nullopt;
    if (with_.framebufferCapture == nullptr)
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("This version of Dorvane cannot capture the screen of a VM."));
    co_return co_await with_.framebufferCapture->capturePNG(handle->source, frameTimeout);
}

Task<std::string> VMInspector::logs(VMRecordPointer vm) const {
    const auto work = [this, fields = VMRecordFields(*vm), file = vm->bundle().consoleLog()] {
        auto text = with_.log == nullptr ? std::string() : with_.log->lines(fields);
        const auto console = consoleTail(file);
        if (console.empty()) return text;
        if (!text.empty()) text += "\n";
        return text + consoleHeader + console;
    };
    co_return co_await with_.runtime.background.run(work);
}

}  // namespace dorvane
