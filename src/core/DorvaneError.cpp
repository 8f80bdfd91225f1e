// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneError.h"

#include <array>

#include "base/Localized.h"
#include "core/ByteCountText.h"
#include "runtime/Task.h"

namespace dorvane {
namespace {

struct CaseTexts {
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
    CaseTexts{Case::backendExecutionFailed, "Backend execution failed (exit code: %d): %@"},
    CaseTexts{Case::backendVersionMismatch, "Backend version mismatch. Expected: %@, Actual: %@"},
    CaseTexts{Case::vmNotFound, "VM not found: %@"},
    CaseTexts{Case::vmAlreadyRunning, "VM '%@' is already running"},
    CaseTexts{Case::vmNotRunning, "VM '%@' is not running"},
    CaseTexts{Case::vmCreationFailed, "Failed to create VM: %@"},
    CaseTexts{Case::vmStartupFailed, "Failed to start VM: %@"},
    CaseTexts{Case::vmStopFailed, "Failed to stop VM: %@"},
    CaseTexts{Case::vmCloneFailed, "Failed to clone VM: %@"},
    CaseTexts{Case::vmDeleteFailed, "Failed to delete VM: %@"},
    CaseTexts{Case::vmBackupFailed, "Failed to back up VM: %@"},
    CaseTexts{Case::vmRestoreFailed, "Failed to restore VM: %@"},
    CaseTexts{Case::vmImportFailed, "Failed to import VM: %@"},
    CaseTexts{Case::vmNameCollision, "A VM named '%@' already exists."},
    CaseTexts{Case::vmSnapshotFailed, "Failed to take snapshot: %@"},
    CaseTexts{Case::vmSnapshotRestoreFailed, "Failed to restore snapshot: %@"},
    CaseTexts{Case::vmSnapshotDeleteFailed, "Failed to delete snapshot: %@"},
    CaseTexts{Case::vmStorageInsufficient, "Insufficient storage for VM. Required: %@, Available: %@"},
    CaseTexts{Case::diskSpaceInsufficient, "Insufficient disk space. Required: %@, Available: %@",
              "Free up disk space or choose a different storage location."},
    CaseTexts{Case::guestSSHNotConfigured, "SSH is not configured for VM '%@'.",
              "Open the VM's Overview tab in Dorvane and set an SSH username (and a private key if the guest "
              "requires "
              "one)."},
    CaseTexts{Case::guestSSHKeyUnreadable, "The SSH private key for VM '%@' could not be read.",
              "Re-select the private key file in the VM's Overview tab in Dorvane."},
    CaseTexts{Case::guestAgentNotEnabled, "The guest agent is turned off for VM '%@'.",
              "Turn the guest agent on in the VM's settings, then restart the VM so the socket device is "
              "attached."},
    CaseTexts{Case::guestAgentUnavailable, "The guest agent did not answer: %@", agentSuggestion},
    CaseTexts{Case::guestAgentFailed, "%@"},
    CaseTexts{
        Case::suspendedStateHardwareChanged,
        "\"%@\" was suspended with different shared folders or attached disks, so it cannot resume where it "
        "left "
        "off.",
        "Undo the changes to shared folders and attached disks to resume the VM. To start it fresh instead, "
        "press "
        "Start on the VM's page and choose to discard the suspended state. Discarding loses anything unsaved "
        "inside the VM."},
    CaseTexts{
        Case::suspendedStateRestoreFailed, "\"%@\" could not resume where it left off: %@",
        "The suspended state has been kept. Press Start to try again. To start fresh instead, press Start "
        "on the "
        "VM's page and choose to discard the suspended state. Discarding loses anything unsaved inside the "
        "VM."},
    CaseTexts{Case::vmBusy, "\"%@\" is busy saving or restoring its state. Try again when it finishes."},
    CaseTexts{Case::guestAgentNoReply,
              "The command was sent to the guest, but no result came back (%@). It may have run anyway.",
              "Check the guest's state before running the command again, so it does not run twice."},
    CaseTexts{Case::snapshotChainTooDeep,
              "This VM already has %d stacked snapshots, which is the limit. Delete an older snapshot before "
              "taking a "
              "new one."},
    CaseTexts{Case::usbPassthroughFailed, "USB passthrough failed: %@"},
    CaseTexts{Case::invalidConfiguration, "Invalid configuration: %@"},
    CaseTexts{Case::networkError, "Network error: %@"},
    CaseTexts{Case::unknown, "An unexpected error occurred: %@"},
    CaseTexts{Case::backendNotFound, "Backend not found",
              "Please ensure Dorvane is installed correctly and the bundled backend is present."},
    CaseTexts{Case::backendNotCompatible, "Backend is not compatible with this version of Dorvane"},
    CaseTexts{Case::virtualizationNotSupported, "Virtualization is not supported on this Mac",
              "Virtualization requires Apple Silicon (M1/M2/M3) Mac."},
    CaseTexts{Case::virtualizationNotEnabled, "Virtualization is not enabled. Please check System Settings",
              "Go to System Settings → General → Sharing and enable 'Virtual Machine' if available."},
    CaseTexts{Case::insufficientPermissions, "Insufficient permissions to perform this operation"},
    CaseTexts{Case::guestAgentTimedOut, "The guest agent did not answer in time.", agentSuggestion},
};

constexpr bool standsInOrder() {
    for (std::size_t i = 0; i < allTexts.size(); ++i)
        if (allTexts[i].which != static_cast<Case>(i)) return false;
    return allTexts.back().which == Case::guestAgentTimedOut;
}
static_assert(standsInOrder());

const CaseTexts& textsOf(Case which) { return allTexts.at(static_cast<std::size_t>(which)); }

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

void rethrowAs(DorvaneError::Case which, const std::exception_ptr& error) {
    if (isCancellation(error)) std::rethrow_exception(error);
    try {
        std::rethrow_exception(error);
    } catch (const DorvaneError&) {
        throw;
    } catch (...) {
        throw DorvaneError(which, localizedDescription(error));
    }
}

}  // namespace dorvane
