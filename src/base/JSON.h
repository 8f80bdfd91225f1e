// SPDX-License-Identifier: Apache-2.0
// JSON values, and the strict reading of them: no number passes for a boolean, nothing out of range is cut.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/Bytes.h"

namespace dorvane {

/// Object keys are kept sorted, which is how every file and wire text here is written.
using JSON = nlohmann::json;

/// What made a text or a value unreadable, as a sentence.
class JSONError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Parses UTF-8 text; throws JSONError for anything that is not one JSON value, or nests deeper than 512.
JSON parseJSON(std::string_view text);
/// Two-space indentation, sorted keys, slashes unescaped, no line feed at the end.
std::string prettyJSON(const JSON& value);
/// One line, sorted keys. Invalid UTF-8 in a text becomes U+FFFD.
std::string compactJSON(const JSON& value);

/// Conversions that accept exactly one kind of JSON value. All throw JSONError naming `key`.
template <typename T>
T jsonValue(const JSON& value, std::string_view key);

/// Reads the members of one object; unknown members are ignored.
class JSONReader {
  public:
    /// Throws unless `object` is an object; it must outlive the reader.
    explicit JSONReader(const JSON& object, std::string_view what = "The value");

    /// Throws when the member is missing or has another type.
    template <typename T>
    T required(std::string_view key) const {
        const auto* member = find(key);
        if (member == nullptr) throw JSONError("Missing key \"" + std::string(key) + "\".");
        return jsonValue<T>(*member, key);
    }
    /// Absent when the member is missing or null; throws when it has another type.
    template <typename T>
    std::optional<T> optional(std::string_view key) const {
        const auto* member = find(key);
        if (member == nullptr || member->is_null()) return std::nullopt;
        return jsonValue<T>(*member, key);
    }
    /// The member itself, or null when missing.
    const JSON* find(std::string_view key) const;

  private:
    const JSON& object_;
};

/// Puts the member only when the optional holds a value.
template <typename T>
void putOptional(JSON& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = *value;
}

namespace detail {
[[noreturn]] void throwMistyped(std::string_view key, std::string_view expected);
std::int64_t signedInteger(const JSON& value, std::string_view key);
std::uint64_t unsignedInteger(const JSON& value, std::string_view key);
}  // namespace detail

template <typename T>
T jsonValue(const JSON& value, std::string_view key) {
    if constexpr (std::is_same_v<T, bool>) {
        if (!value.is_boolean()) detail::throwMistyped(key, "a boolean");
        return value.get<bool>();
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!value.is_string()) detail::throwMistyped(key, "a string");
        return value.get<std::string>();
    } else if constexpr (std::is_same_v<T, double>) {
        if (!value.is_number()) detail::throwMistyped(key, "a number");
        return value.get<double>();
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        const auto number = detail::signedInteger(value, key);
        if (!std::in_range<T>(number)) detail::throwMistyped(key, "an integer in range");
        return static_cast<T>(number);
    } else if constexpr (std::is_integral_v<T>) {
        const auto number = detail::unsignedInteger(value, key);
        if (!std::in_range<T>(number)) detail::throwMistyped(key, "an integer in range");
        return static_cast<T>(number);
    } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
        if (!value.is_array()) detail::throwMistyped(key, "an array");
        std::vector<std::string> texts;
        for (const auto& element : value) texts.push_back(jsonValue<std::string>(element, key));
        return texts;
    } else {
        static_assert(std::is_same_v<T, JSON>, "no JSON conversion for this type");
        return value;
    }
}

}  // namespace dorvane
