// SPDX-License-Identifier: Apache-2.0
// The one error type that crosses service boundaries.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "base/UUID.h"

namespace dorvane {

/// Carries its case and payload; compared by both. `what()` is the description.
class DorvaneError : public std::exception {
  public:
    enum class Case {
        backendExecutionFailed,
        backendVersionMismatch,
        vmNotFound,
        vmAlreadyRunning,
        vmNotRunning,
        vmCreationFailed,
        vmStartupFailed,
        vmStopFailed,
        vmCloneFailed,
        vmDeleteFailed,
        vmBackupFailed,
        vmRestoreFailed,
        vmImportFailed,
        vmNameCollision,
        vmSnapshotFailed,
        vmSnapshotRestoreFailed,
        vmSnapshotDeleteFailed,
        vmStorageInsufficient,
        diskSpaceInsufficient,
        guestSSHNotConfigured,
        guestSSHKeyUnreadable,
        guestAgentNotEnabled,
        guestAgentUnavailable,
        guestAgentFailed,
        suspendedStateHardwareChanged,
        suspendedStateRestoreFailed,
        vmBusy,
        guestAgentNoReply,
        snapshotChainTooDeep,
        usbPassthroughFailed,
        invalidConfiguration,
        networkError,
        unknown,
        backendNotFound,
        backendNotCompatible,
        virtualizationNotSupported,
        virtualizationNotEnabled,
        insufficientPermissions,
        guestAgentTimedOut,
    };

    /// `text` and `second` are the payload's texts in the order of its case (name or reason first).
    explicit DorvaneError(Case which, std::string text = {}, std::string second = {});
    static DorvaneError vmNotFound(const UUID& id) { return DorvaneError(Case::vmNotFound, id.text()); }
    static DorvaneError backendExecutionFailed(std::int64_t exitCode, const std::string& message);
    static DorvaneError snapshotChainTooDeep(std::int64_t depth);
    /// Byte counts; `which` is vmStorageInsufficient or diskSpaceInsufficient.
    static DorvaneError insufficient(Case which, std::int64_t required, std::int64_t available);
    /// Wraps a lower error; `which` is networkError or unknown.
    static DorvaneError wrapping(Case which, const std::exception& underlying);

    Case which() const { return which_; }
    /// The first text of the payload: a name, a reason, a message.
    const std::string& text() const { return text_; }
    const std::string& second() const { return second_; }

    const std::string& errorDescription() const { return description_; }
    std::optional<std::string> recoverySuggestion() const;
    const char* what() const noexcept override { return description_.c_str(); }

    bool operator==(const DorvaneError& other) const {
        return which_ == other.which_ && text_ == other.text_ && second_ == other.second_;
    }

  private:
    Case which_;
    std::string text_;
    std::string second_;
    std::string description_;
};

/// The text that a user sees of any exception: a DorvaneError's description, else its own words.
std::string localizedDescription(const std::exception_ptr& error);
/// The same with the recovery suggestion, if any, behind a blank.
std::string describedWithSuggestion(const std::exception_ptr& error);
/// Throws a cancellation or a DorvaneError as it is, anything else as `which` with its words.
[[noreturn]] void rethrowAs(DorvaneError::Case which, const std::exception_ptr& error);

}  // namespace dorvane
