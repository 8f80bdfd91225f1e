// SPDX-License-Identifier: Apache-2.0
// Reads one HTTP/1.x request (RFC 9112) from bytes as they arrive. Knows bytes only; does no I/O.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "base/Bytes.h"

namespace dorvane {

/// A value, fed from one thread at a time. No chunked bodies; whatever follows the request is ignored. Memory
/// is bounded by the two limits. Spent after any result but `NeedMoreData`.
class HTTPRequestParser {
  public:
    /// A head with its final CR LF CR LF, and the most that is kept while that marker hasn't come.
    static constexpr std::size_t maximumHeadBytes = 65536;
    static constexpr std::int64_t maximumBodyBytes = 4194304;

    /// Names in lower case; a later header replaces an earlier one of the same name.
    using Headers = std::map<std::string, std::string, std::less<>>;
    /// Asked once, as soon as the head is read and before any body is.
    using AuthorizeHead = std::function<bool(const std::string& path, const Headers& headers)>;

    struct Request {
        std::string method;
        /// Without the query.
        std::string path;
        Headers headers;
        Bytes body;
    };

    struct ParseResult {
        struct Complete {
            Request request;
        };
        struct Invalid {
            std::string reason;
        };
        struct NeedMoreData {};
        struct Unauthorized {};
        using Kind = std::variant<Complete, Invalid, NeedMoreData, Unauthorized>;
    };

    explicit HTTPRequestParser(AuthorizeHead authorizeHead = {}) : authorizeHead_(std::move(authorizeHead)) {}

    ParseResult::Kind append(ByteView bytes);

  private:
    struct Head {
        Request request;
        std::size_t bodyLength = 0;
    };

    /// Absent once the head is read and accepted.
    std::optional<ParseResult::Kind> readHead();

    AuthorizeHead authorizeHead_;
    Bytes buffer_;
    /// Bytes of `buffer_` known not to begin the end-of-head marker.
    std::size_t searched_ = 0;
    std::optional<Head> parsedHead_;
};

}  // namespace dorvane
