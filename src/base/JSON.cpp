// SPDX-License-Identifier: Apache-2.0
#include "base/JSON.h"

namespace dorvane {
namespace {

constexpr int maximumNesting = 512;

}  // namespace

JSON parseJSON(std::string_view text) {
    const JSON::parser_callback_t guard = [](int depth, JSON::parse_event_t, JSON&) {
        if (depth > maximumNesting) throw JSONError("The JSON text is nested too deeply.");
        return true;
    };
    try {
        return JSON::parse(text, guard);
    } catch (const JSON::exception& error) {
        throw JSONError(std::string("The JSON text is not valid: ") + error.what());
    }
}

std::string prettyJSON(const JSON& value) {
    return value.dump(2, ' ', false, JSON::error_handler_t::replace);
}

std::string compactJSON(const JSON& value) {
    return value.dump(-1, ' ', false, JSON::error_handler_t::replace);
}

JSONReader::JSONReader(const JSON& object, std::string_view what) : object_(object) {
    if (!object.is_object()) throw JSONError(std::string(what) + " is not a JSON object.");
}

const JSON* JSONReader::find(std::string_view key) const {
    const auto member = object_.find(key);
    return member == object_.end() ? nullptr : &*member;
}

namespace detail {

void throwMistyped(std::string_view key, std::string_view expected) {
    throw JSONError("The value of \"" + std::string(key) + "\" is not " + std::string(expected) + ".");
}

std::int64_t signedInteger(const JSON& value, std::string_view key) {
    if (value.is_number_unsigned() && !std::in_range<std::int64_t>(value.get<std::uint64_t>()))
        throwMistyped(key, "an integer in range");
    if (!value.is_number_integer()) throwMistyped(key, "an integer");
    return value.get<std::int64_t>();
}

std::uint64_t unsignedInteger(const JSON& value, std::string_view key) {
    if (value.is_number_unsigned()) return value.get<std::uint64_t>();
    if (!value.is_number_integer() || value.get<std::int64_t>() < 0)
        throwMistyped(key, "an unsigned integer");
    return static_cast<std::uint64_t>(value.get<std::int64_t>());
}

}  // namespace detail
}  // namespace dorvane
