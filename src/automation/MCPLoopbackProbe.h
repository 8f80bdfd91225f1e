// SPDX-License-Identifier: Apache-2.0
// The settings window's self-test: talks to the running MCP server the way a client would.
#pragma once

#include <string>

#include "base/Bytes.h"
#include "runtime/Runtime.h"

namespace dorvane {

struct MCPLoopbackProbe {
    static constexpr auto timeLimit = seconds(3);

    struct Result {
        enum class Kind {
            ok,                  // the server answered a `tools/list`
            unreachable,         // no conversation took place
            unexpectedResponse,  // what answered isn't a server of this kind
            unauthorized,
        };
        Kind kind = Kind::unauthorized;
        std::size_t toolCount = 0;
        /// Why it is unreachable, or what was unexpected.
        std::string text = {};
        bool operator==(const Result&) const = default;

        static Result ok(std::size_t toolCount) { return {Kind::ok, toolCount}; }
        static Result unreachable(std::string why) { return {Kind::unreachable, 0, std::move(why)}; }
        static Result unexpectedResponse(std::string what) {
            return {Kind::unexpectedResponse, 0, std::move(what)};
        }
        static Result unauthorized() { return {Kind::unauthorized}; }
    };

    /// From any serial executor. Throws nothing but a cancellation.
    static Task<Result> probe(const Runtime& runtime, int port, std::string token);
    /// Reads a whole HTTP response; never throws.
    static Result interpret(ByteView response);
};

}  // namespace dorvane
