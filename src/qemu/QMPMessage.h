// SPDX-License-Identifier: Apache-2.0
// One message that QEMU sends over QMP.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "qemu/QMPValue.h"

namespace dorvane {

struct QMPMessage {
    struct Greeting {
        std::string version;  // "11.1.3", or "unknown"
        bool operator==(const Greeting&) const = default;
    };
    struct Result {
        std::optional<std::string> id;
        QMPObject payload;
        bool operator==(const Result&) const = default;
    };
    struct Error {
        std::optional<std::string> id;
        std::string className;
        std::string message;
        bool operator==(const Error&) const = default;
    };
    struct Event {
        std::string name;
        QMPObject data;
        bool operator==(const Event&) const = default;
    };

    /// The last event that every observer of a connection sees; it never comes from QEMU.
    static constexpr auto disconnectedEventName = "__DISCONNECTED__";

    std::variant<Greeting, Result, Error, Event> kind;

    /// The event, or null for any other message.
    const Event* event() const { return std::get_if<Event>(&kind); }

    bool operator==(const QMPMessage&) const = default;
};

}  // namespace dorvane
