// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolArguments.h"

#include <cmath>
#include <limits>

#include "automation/MCPErrors.h"
#include "base/Text.h"

namespace dorvane {

const JSON* MCPToolArguments::find(const char* key) const {
    const auto member = object_.find(key);
    return member == object_.end() ? nullptr : &*member;
}

std::optional<std::string> MCPToolArguments::text(const char* key) const {
    const auto* member = find(key);
    if (member == nullptr || !member->is_string()) return std::nullopt;
    return member->get<std::string>();
}

std::string MCPToolArguments::requiredText(const char* key, const char* refusal) const {
    auto value = text(key);
    if (!value || value->empty()) throw MCPToolError(refusal);
    return *std::move(value);
}

std::string MCPToolArguments::requiredVisibleText(const char* key, const char* refusal) const {
    auto value = requiredText(key, refusal);
    if (trimmed(value).empty()) throw MCPToolError(refusal);
    return value;
}

bool MCPToolArguments::isTrue(const char* key) const {
    const auto* member = find(key);
    return member != nullptr && member->is_boolean() && member->get<bool>();
}

std::optional<double> MCPToolArguments::number(const char* key) const {
    const auto* member = find(key);
    if (member == nullptr || !member->is_number()) return std::nullopt;
    return member->get<double>();
}

std::optional<std::int64_t> MCPToolArguments::integer(const char* key) const {
    using Limits = std::numeric_limits<std::int64_t>;
    const auto value = number(key);
    if (!value || std::trunc(*value) != *value) return std::nullopt;
    if (*value >= 0x1p63) return Limits::max();
    if (*value < -0x1p63) return Limits::min();
    return find(key)->get<std::int64_t>();
}

}  // namespace dorvane
