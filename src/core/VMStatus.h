// SPDX-License-Identifier: Apache-2.0
// What a machine is doing, and why it last went down.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace dorvane {

enum class VMStatus { stopped, starting, running, paused, error };

/// "stopped", "starting", …: the form in the store and on the wire.
std::string rawValue(VMStatus status);
std::optional<VMStatus> statusFromRawValue(std::string_view text);
/// "Stopped", "Starting", …: what a person reads.
std::string displayText(VMStatus status);

struct VMStopReason {
    enum class Kind { failure, guestInitiated, requested, forced };
    Kind kind = Kind::requested;
    /// The text for the user; only a failure has one.
    std::string message = {};

    static VMStopReason failure(std::string text) { return {Kind::failure, std::move(text)}; }
    static VMStopReason guestInitiated() { return {Kind::guestInitiated}; }
    static VMStopReason requested() { return {Kind::requested}; }
    static VMStopReason forced() { return {Kind::forced}; }
    bool operator==(const VMStopReason&) const = default;
};
/// One line for a log.
std::string describe(const VMStopReason& reason);

}  // namespace dorvane
