// SPDX-License-Identifier: Apache-2.0
// A tool call's arguments, read without trust: a value of another type than asked for counts as absent.
#pragma once

#include <optional>
#include <string>

#include "base/JSON.h"

namespace dorvane {

class MCPToolArguments {
  public:
    explicit MCPToolArguments(JSON object) : object_(std::move(object)) {}

    std::optional<std::string> text(const char* key) const;
    /// A string with at least one character; throws MCPToolError with `refusal` otherwise.
    std::string requiredText(const char* key, const char* refusal) const;
    /// The same, but blanks and line ends alone don't count. The text comes back untrimmed.
    std::string requiredVisibleText(const char* key, const char* refusal) const;
    /// Only the JSON boolean true is true.
    bool isTrue(const char* key) const;
    std::optional<double> number(const char* key) const;
    /// A number without a fraction, however it is spelled; one beyond 64 bits reads as the nearest end.
    std::optional<std::int64_t> integer(const char* key) const;

  private:
    const JSON* find(const char* key) const;

    JSON object_;
};

}  // namespace dorvane
