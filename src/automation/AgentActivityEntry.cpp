// SPDX-License-Identifier: Apache-2.0
#include "automation/AgentActivityEntry.h"

namespace dorvane {
namespace {

template <typename Value>
Value checked(const std::optional<Value>& value, const char* key) {
    if (!value) throw JSONError(std::string("The value of \"") + key + "\" has another form.");
    return *value;
}

}  // namespace

JSON AgentActivityEntry::encoded() const {
    JSON line;
    line["id"] = id.text();
    line["date"] = iso8601Text(date);
    line["tool"] = tool;
    putOptional(line, "vm", vm);
    line["summary"] = summary;
    line["succeeded"] = succeeded;
    putOptional(line, "error", error);
    line["durationMilliseconds"] = durationMilliseconds;
    return line;
}

std::optional<AgentActivityEntry> AgentActivityEntry::decodedLine(std::string_view line) {
    try {
        const auto value = parseJSON(line);
        const JSONReader reader(value);
        AgentActivityEntry entry;
        entry.id = checked(UUID::parse(reader.required<std::string>("id")), "id");
        entry.date = checked(parseISO8601(reader.required<std::string>("date")), "date");
        entry.tool = reader.required<std::string>("tool");
        entry.vm = reader.optional<std::string>("vm");
        entry.summary = reader.required<std::string>("summary");
        entry.succeeded = reader.required<bool>("succeeded");
        entry.error = reader.optional<std::string>("error");
        entry.durationMilliseconds = reader.required<std::int64_t>("durationMilliseconds");
        return entry;
    } catch (const JSONError&) {
        return std::nullopt;
    }
}

}  // namespace dorvane
