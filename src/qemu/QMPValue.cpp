// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPValue.h"

#include <cmath>
#include <limits>

namespace dorvane {
namespace {

using Integers = std::numeric_limits<std::int64_t>;

/// Truncated; what an integer can't hold becomes the nearest end of its range, for a cast would be undefined.
std::int64_t truncatedInteger(const JSON& number) {
    if (number.is_number_unsigned())
        return static_cast<std::int64_t>(
            std::min(number.get<std::uint64_t>(), static_cast<std::uint64_t>(Integers::max())));
    if (number.is_number_integer()) return number.get<std::int64_t>();
    constexpr double bound = 9223372036854775808.0;  // 2 to the power of 63, the first value out of range
    const auto value = number.get<double>();
    if (std::isnan(value)) return 0;
    if (value >= bound) return Integers::max();
    if (value < -bound) return Integers::min();
    return static_cast<std::int64_t>(value);
}

}  // namespace

QMPValue::QMPValue(std::nullptr_t) : value_(nullptr) {}
QMPValue::QMPValue(std::string text) : value_(std::move(text)) {}
QMPValue::QMPValue(const char* text) : value_(std::string(text)) {}
QMPValue::QMPValue(std::int64_t number) : value_(number) {}
QMPValue::QMPValue(int number) : value_(std::int64_t{number}) {}
QMPValue::QMPValue(bool boolean) : value_(boolean) {}
QMPValue::QMPValue(QMPObject object) : value_(std::move(object)) {}
QMPValue::QMPValue(QMPArray array) : value_(std::move(array)) {}

QMPValue QMPValue::fromJSON(const JSON& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>();
    if (value.is_number()) return truncatedInteger(value);
    if (value.is_object()) return objectFromJSON(value);
    if (!value.is_array()) return nullptr;
    QMPArray array;
    array.reserve(value.size());
    for (const auto& element : value) array.push_back(fromJSON(element));
    return array;
}

QMPObject QMPValue::objectFromJSON(const JSON& value) {
    QMPObject object;
    if (!value.is_object()) return object;
    for (const auto& [key, member] : value.items()) object.emplace(key, fromJSON(member));
    return object;
}

std::optional<std::int64_t> QMPValue::integer() const {
    const auto* number = std::get_if<std::int64_t>(&value_);
    return number != nullptr ? std::optional(*number) : std::nullopt;
}

std::optional<bool> QMPValue::boolean() const {
    const auto* flag = std::get_if<bool>(&value_);
    return flag != nullptr ? std::optional(*flag) : std::nullopt;
}

const QMPValue* QMPValue::member(const std::string& key) const {
    const auto* members = object();
    return members != nullptr ? findMember(*members, key) : nullptr;
}

bool QMPValue::operator==(const QMPValue& other) const { return value_ == other.value_; }

const QMPValue* findMember(const QMPObject& object, const std::string& key) {
    const auto found = object.find(key);
    return found != object.end() ? &found->second : nullptr;
}

}  // namespace dorvane
