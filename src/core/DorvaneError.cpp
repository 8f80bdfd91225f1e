// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneError.h"

#include <array>

#include "base/Localized.h"
#include "core/ByteCountText.h"

namespace dorvane {
namespace {

struct Texts {
    DorvaneError::Case which;
    const char* description;
    const char* suggestion = nullptr;
};

using Case = DorvaneError::Case;

constexpr auto agentSuggestion =
    "Install or restart the Dorvane guest agent from the VM's Overview tab. Dorvane falls back to SSH when "
    "the agent "
    "is unreachable.";

/// In the order of the enumeration; the payload's texts fill the placeholders.
constexpr std::array allTexts{
    Texts{Case::backendExecutionFailed, "Backend execution failed (exit code: %d): %@"},
    Texts{Case::backendVersionMismatch, "Backend version mismatch. Expected: %@, Actual: %@"},
    Texts{Case::vmNotFound, "VM not found: %@"},
    Texts{Case::vmAlreadyRunning, "VM '%@' is already running"},
    Texts{Case::vmNotRunning, "VM '%@' is not running"},
    Texts{Case::vmCreationFailed, "Failed to create VM: %@"},
    Texts{Case::vmStartupFailed, "Failed to start VM: %@"},
    Texts{Case::vmStopFailed, "Failed to stop VM: %@"},
    Texts{Case::vmCloneFailed, "Failed to clone VM: %@"},
    Texts{Case::vmDeleteFailed, "Failed to delete VM: %@"},
    Texts{Case::vmBackupFailed, "Failed to back up VM: %@"},
    Texts{Case::vmRestoreFailed, "Failed to restore VM: %@"},
    Texts{Case::vmImportFailed, "Failed to import VM: %@"},
    Texts{Case::vmNameCollision, "A VM named '%@' already exists."},
    Texts{Case::vmSnapshotFailed, "Failed to take snapshot: %@"},
    Texts{Case::vmSnapshotRestoreFailed, "Failed to restore snapshot: %@"},
    Texts{Case::vmSnapshotDeleteFailed, "Failed to delete snapshot: %@"},
    Texts{Case::vmStorageInsufficient, "Insufficient storage for VM. Required: %@, Available: %@"},
    Texts{Case::diskSpaceInsufficient, "Insufficient disk space. Required: %@, Available: %@",
          "Free up disk space or choose a different storage location."},
    Texts{Case::guestSSHNotConfigured, "SSH is not configured for VM '%@'.",
          "Open the VM's Overview tab in Dorvane and set an SSH username (and a private key if the guest "
          "requires "
          "one)."},
    Texts{Case::guestSSHKeyUnreadable, "The SSH private key for VM '%@' could not be read.",
          "Re-select the private key file in the VM's Overview tab in Dorvane."},
    Texts{Case::guestAgentNotEnabled, "The guest agent is turned off for VM '%@'.",
          "Turn the guest agent on in the VM's settings, then restart the VM so the socket device is "
          "attached."},
    Texts{Case::guestAgentUnavailable, "The guest agent did not answer: %@", agentSuggestion},
    Texts{Case::guestAgentFailed, "%@"},
    Texts{
        Case::suspendedStateHardwareChanged,
        "\"%@\" was suspended with different shared folders or attached disks, so it cannot resume where it "
        "left "
        "off.",
        "Undo the changes to shared folders and attached disks to resume the VM. To start it fresh instead, "
        "press "
        "Start on the VM's page and choose to discard the suspended state. Discarding loses anything unsaved "
        "inside the VM."},
    Texts{Case::suspendedStateRestoreFailed, "\"%@\" could not resume where it left off: %@",
          "The suspended state has been kept. Press Start to try again. To start fresh instead, press Start "
          "on the "
          "VM's page and choose to discard the suspended state. Discarding loses anything unsaved inside the "
          "VM."},
    Texts{Case::vmBusy, "\"%@\" is busy saving or restoring its state. Try again when it finishes."},
    Texts{Case::guestAgentNoReply,
          "The command was sent to the guest, but no result came back (%@). It may have run anyway.",
          "Check the guest's state before running the command again, so it does not run twice."},
    Texts{Case::snapshotChainTooDeep,
          "This VM already has %d stacked snapshots, which is the limit. Delete an older snapshot before "
          "taking a "
          "new one."},
    Texts{Case::usbPassthroughFailed, "USB passthrough failed: %@"},
    Texts{Case::invalidConfiguration, "Invalid configuration: %@"},
    Texts{Case::networkError, "Network error: %@"},
    Texts{Case::unknown, "An unexpected error occurred: %@"},
    Texts{Case::backendNotFound, "Backend not found",
          "Please ensure Dorvane is installed correctly and the bundled backend is present."},
    Texts{Case::backendNotCompatible, "Backend is not compatible with this version of Dorvane"},
    Texts{Case::virtualizationNotSupported, "Virtualization is not supported on this Mac",
          "Virtualization requires Apple Silicon (M1/M2/M3) Mac."},
    Texts{Case::virtualizationNotEnabled, "Virtualization is not enabled. Please check System Settings",
          "Go to System Settings → General → Sharing and enable 'Virtual Machine' if available."},
    Texts{Case::insufficientPermissions, "Insufficient permissions to perform this operation"},
    Texts{Case::guestAgentTimedOut, "The guest agent did not answer in time.", agentSuggestion},
};

constexpr bool standsInOrder() {
    for (std::size_t i = 0; i < allTexts.size(); ++i)
        if (allTexts[i].which != static_cast<Case>(i)) return false;
    return allTexts.back().which == Case::guestAgentTimedOut;
}
static_assert(standsInOrder());

const Texts& textsOf(Case which) { return allTexts.at(static_cast<std::size_t>(which)); }

}  // namespace

DorvaneError::DorvaneError(Case which, std::string text, std::string second)
    : which_(which),
      text_(std::move(text)),
      second_(std::move(second)),
      description_(localized(textsOf(which).description, text_, second_)) {}

DorvaneError DorvaneError::backendExecutionFailed(std::int64_t exitCode, const std::string& message) {
    return DorvaneError(Case::backendExecutionFailed, std::to_string(exitCode), message);
}

DorvaneError DorvaneError::snapshotChainTooDeep(std::int64_t depth) {
    return DorvaneError(Case::snapshotChainTooDeep, std::to_string(depth));
}

DorvaneError DorvaneError::insufficient(Case which, std::int64_t required, std::int64_t available) {
    return DorvaneError(which, byteCountText(required), byteCountText(available));
}

DorvaneError DorvaneError::wrapping(Case which, const std::exception& underlying) {
    return DorvaneError(which, underlying.what());
}

std::optional<std::string> DorvaneError::recoverySuggestion() const {
    const auto* suggestion = textsOf(which_).suggestion;
    if (suggestion == nullptr) return std::nullopt;
    return localized(suggestion);
}

std::string localizedDescription(const std::exception_ptr& error) {
    if (!error) return {};
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& failure) {
        return failure.what();
    } catch (...) {
        return localized("An unknown error occurred.");
    }
}

std::string describedWithSuggestion(const std::exception_ptr& error) {
    if (!error) return {};
    try {
        std::rethrow_exception(error);
    } catch (const DorvaneError& failure) {
        const auto suggestion = failure.recoverySuggestion();
        return suggestion ? failure.errorDescription() + " " + *suggestion : failure.errorDescription();
    } catch (...) {
        return localizedDescription(std::current_exception());
    }
}

}  // namespace dorvane
