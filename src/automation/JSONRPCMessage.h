// SPDX-License-Identifier: Apache-2.0
// One incoming JSON-RPC 2.0 message and the replies to it, as text.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "base/JSON.h"

namespace dorvane {

struct JSONRPCMessage {
    struct NotJSON {};
    /// An array among others: batches are not supported.
    struct NotAnObject {};
    /// Wants no reply: no `id`, or a null one.
    struct Notification {};
    struct WithoutMethod {
        std::string idText;
    };
    struct Call {
        /// The `id` as JSON text, to be echoed as it came.
        std::string idText;
        std::string method;
        /// An empty object when missing or of another type.
        JSON params;
    };
    using Kind = std::variant<NotJSON, NotAnObject, Notification, WithoutMethod, Call>;

    /// Never throws. The member `jsonrpc` is not looked at.
    static Kind parse(std::string_view body);

    /// One line with sorted keys. `resultText` is JSON.
    static std::string resultReply(std::string_view idText, std::string_view resultText);
    static std::string errorReply(std::string_view idText, int code, const std::string& message);
};

}  // namespace dorvane
