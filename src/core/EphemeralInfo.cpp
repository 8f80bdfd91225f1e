// SPDX-License-Identifier: Apache-2.0
#include "core/EphemeralInfo.h"

namespace dorvane {
namespace {

Date requiredDate(const JSONReader& reader, std::string_view key) {
    const auto date = parseISO8601(reader.required<std::string>(key));
    if (!date) detail::throwMistyped(key, "a date");
    return *date;
}

}  // namespace

JSON EphemeralInfo::encoded() const {
    JSON value{{"createdAt", iso8601Text(createdAt)}, {"expiresAt", iso8601Text(expiresAt)}};
    if (sourceVMID) value["sourceVMID"] = sourceVMID->text();
    return value;
}

EphemeralInfo EphemeralInfo::decoded(const JSON& value) {
    const JSONReader reader(value, "The sandbox marker");
    EphemeralInfo info{requiredDate(reader, "createdAt"), requiredDate(reader, "expiresAt"), std::nullopt};
    if (const auto source = reader.optional<std::string>("sourceVMID")) {
        info.sourceVMID = UUID::parse(*source);
        if (!info.sourceVMID) detail::throwMistyped("sourceVMID", "an identifier");
    }
    return info;
}

}  // namespace dorvane
