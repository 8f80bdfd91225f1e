// SPDX-License-Identifier: Apache-2.0
#include "core/VMAttachmentsBuilder.h"

#include <fmt/format.h>

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"
#include "core/DorvaneVMConfig.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

void requireThere(const std::string& path, const std::string& message) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored))
        throw DorvaneError(DorvaneError::Case::invalidConfiguration, message);
}

std::vector<SharedFolder> validatedFolders(const std::vector<SharedFolder>& folders) {
    std::vector<SharedFolder> validated;
    for (auto folder : folders) {
        folder.localPath = trimmed(folder.localPath);
        if (folder.localPath.empty()) continue;
        requireThere(folder.localPath, localized("Shared folder does not exist: %@", folder.localPath));
        validated.push_back(std::move(folder));
    }
    return validated;
}

std::vector<std::string> validatedAttachmentPaths(const std::vector<std::string>& paths,
                                                  const std::string& missingItemDescription) {
    std::vector<std::string> validated;
    for (const auto& written : paths) {
        std::string path(trimmed(written));
        if (path.empty()) continue;
        requireThere(path, fmt::format("{}: {}", missingItemDescription, path));
        validated.push_back(std::move(path));
    }
    return validated;
}

bool offersGuestAgent(const VMBundle& bundle) {
    try {
        return DorvaneVMConfig::read(bundle.configFile()).linuxGuestAgent.value_or(false);
    } catch (const std::exception&) {
        // The engine reads the same file and words the failure.
        return false;
    }
}

}  // namespace

VMAttachments VMAttachmentsBuilder::attachments(const VMRecordFields& vm) const {
    VMAttachments result;
    result.sharedFolders = validatedFolders(vm.sharedFolders);
    const auto installer = validatedAttachmentPaths({vm.pendingInstallerImagePath.value_or("")},
                                                    localized("Installer image does not exist"));
    if (!installer.empty()) result.installerImagePath = installer.front();
    result.mountedImages = validatedAttachmentPaths(vm.mountedImages.value_or(std::vector<std::string>()),
                                                    localized("Mounted image does not exist"));
    result.usbStorageDevices =
        validatedAttachmentPaths(vm.usbStorageDevices.value_or(std::vector<std::string>()),
                                 localized("USB storage image does not exist"));
    result.guestAgentPayloadPath = stagedAgentPayload(vm);
    return result;
}

std::optional<std::string> VMAttachmentsBuilder::stagedAgentPayload(const VMRecordFields& vm) const {
    if (vm.osType != VMOSType::linux || agentPayload_ == nullptr) return std::nullopt;
    if (!offersGuestAgent(VMBundle(vm.vmPath))) return std::nullopt;
    try {
        return agentPayload_->stage().string();
    } catch (const std::exception& error) {
        vmServiceLogger.error("Could not stage the guest agent payload: %{public}s", error.what());
        return std::nullopt;
    }
}

}  // namespace dorvane
