// SPDX-License-Identifier: Apache-2.0
#include "platform/DefaultsStore.h"

namespace dorvane {
namespace {

template <typename T>
std::optional<T> convert(const JSON& value) {
    if (value.is_null()) return std::nullopt;
    try {
        return jsonValue<T>(value, "");
    } catch (const JSONError&) {
        return std::nullopt;
    }
}

}  // namespace

std::optional<bool> DefaultsStore::boolean(const std::string& key) const { return convert<bool>(value(key)); }
std::optional<std::int64_t> DefaultsStore::integer(const std::string& key) const {
    return convert<std::int64_t>(value(key));
}
std::optional<double> DefaultsStore::number(const std::string& key) const {
    return convert<double>(value(key));
}
std::optional<std::string> DefaultsStore::text(const std::string& key) const {
    return convert<std::string>(value(key));
}

}  // namespace dorvane
