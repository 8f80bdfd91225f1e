// SPDX-License-Identifier: Apache-2.0
#include "core/StoreCoding.h"

#include "base/Hex.h"

namespace dorvane {
namespace {

using Texts = std::vector<std::string>;

template <typename T>
T stored(std::optional<T> value, std::string_view key) {
    if (!value) detail::throwMistyped(key, "one of its known values");
    return *std::move(value);
}

// One pair of overloads for each type of field.

JSON toJSON(const UUID& id) { return id.text(); }
JSON toJSON(Date date) { return static_cast<std::int64_t>(date.time_since_epoch().count()); }
JSON toJSON(VMOSType os) { return rawValue(os); }
JSON toJSON(VMStatus status) { return rawValue(status); }
JSON toJSON(const Bytes& bytes) { return base64Text(bytes); }
JSON toJSON(const DisplayResolution& resolution) { return resolution.encoded(); }
JSON toJSON(const std::string& text) { return text; }
JSON toJSON(bool value) { return value; }
JSON toJSON(std::int64_t value) { return value; }
JSON toJSON(const Texts& texts) { return texts; }
JSON toJSON(const std::vector<SharedFolder>& folders) {
    auto list = JSON::array();
    for (const auto& folder : folders) list.push_back(folder.encoded());
    return list;
}
JSON toJSON(const Bookmarks& bookmarks) {
    auto object = JSON::object();
    for (const auto& [path, bytes] : bookmarks) object[path] = toJSON(bytes);
    return object;
}
JSON toJSON(const EphemeralInfo& info) {
    JSON object{{"createdAt", toJSON(info.createdAt)}, {"expiresAt", toJSON(info.expiresAt)}};
    if (info.sourceVMID) object["sourceVMID"] = toJSON(*info.sourceVMID);
    return object;
}

void fromJSON(const JSON& value, std::string_view key, UUID& id) {
    id = stored(UUID::parse(jsonValue<std::string>(value, key)), key);
}
void fromJSON(const JSON& value, std::string_view key, Date& date) {
    date = Date(Date::duration(jsonValue<std::int64_t>(value, key)));
}
void fromJSON(const JSON& value, std::string_view key, VMOSType& os) {
    os = stored(osTypeFromRawValue(jsonValue<std::string>(value, key)), key);
}
void fromJSON(const JSON& value, std::string_view key, VMStatus& status) {
    status = stored(statusFromRawValue(jsonValue<std::string>(value, key)), key);
}
void fromJSON(const JSON& value, std::string_view key, Bytes& bytes) {
    bytes = stored(parseBase64(jsonValue<std::string>(value, key)), key);
}
void fromJSON(const JSON& value, std::string_view, DisplayResolution& resolution) {
    resolution = DisplayResolution::decoded(value);
}
void fromJSON(const JSON& value, std::string_view key, std::string& text) {
    text = jsonValue<std::string>(value, key);
}
void fromJSON(const JSON& value, std::string_view key, bool& flag) { flag = jsonValue<bool>(value, key); }
void fromJSON(const JSON& value, std::string_view key, std::int64_t& number) {
    number = jsonValue<std::int64_t>(value, key);
}
void fromJSON(const JSON& value, std::string_view key, Texts& texts) { texts = jsonValue<Texts>(value, key); }
void fromJSON(const JSON& value, std::string_view key, std::vector<SharedFolder>& folders) {
    if (!value.is_array()) detail::throwMistyped(key, "an array");
    for (const auto& element : value) folders.push_back(SharedFolder::decoded(element));
}
void fromJSON(const JSON& value, std::string_view key, Bookmarks& bookmarks) {
    if (!value.is_object()) detail::throwMistyped(key, "an object");
    for (const auto& [path, bytes] : value.items()) fromJSON(bytes, key, bookmarks[path]);
}
void fromJSON(const JSON& value, std::string_view key, EphemeralInfo& info) {
    const JSONReader reader(value, key);
    fromJSON(reader.required<JSON>("createdAt"), "createdAt", info.createdAt);
    fromJSON(reader.required<JSON>("expiresAt"), "expiresAt", info.expiresAt);
    if (const auto* source = reader.find("sourceVMID"))
        fromJSON(*source, "sourceVMID", info.sourceVMID.emplace());
}

struct Encoder {
    JSON& body;
    template <typename T>
    void operator()(const char* key, const T& field) const {
        body[key] = toJSON(field);
    }
    template <typename T>
    void operator()(const char* key, const std::optional<T>& field) const {
        if (field) body[key] = toJSON(*field);
    }
};

struct Decoder {
    const JSONReader& reader;
    template <typename T>
    void operator()(const char* key, T& field) const {
        fromJSON(reader.required<JSON>(key), key, field);
    }
    template <typename T>
    void operator()(const char* key, std::optional<T>& field) const {
        field.reset();
        const auto* value = reader.find(key);
        if (value != nullptr && !value->is_null()) fromJSON(*value, key, field.emplace());
    }
};

/// The list of a row's fields, one place for both directions.
template <typename Coder>
void visitFields(auto& record, const Coder& code) requires requires {
    record.vmPath;
}
{
    code("id", record.id);
    code("name", record.name);
    code("osType", record.osType);
    code("osVersionLabel", record.osVersionLabel);
    code("backendModeRaw", record.backendModeRaw);
    code("vmPath", record.vmPath);
    code("diskSizeBytes", record.diskSizeBytes);
    code("memoryMB", record.memoryMB);
    code("cpuCount", record.cpuCount);
    code("status", record.status);
    code("lastLaunchedAt", record.lastLaunchedAt);
    code("createdAt", record.createdAt);
    code("updatedAt", record.updatedAt);
    code("tags", record.tags);
    code("imageSource", record.imageSource);
    code("sharedFolders", record.sharedFolders);
    code("pendingInstallerImagePath", record.pendingInstallerImagePath);
    code("mountedImages", record.mountedImages);
    code("usbStorageDevices", record.usbStorageDevices);
    code("displayResolution", record.displayResolution);
    code("bookmarksByPath", record.bookmarksByPath);
    code("sshUsername", record.sshUsername);
    code("sshPrivateKeyPath", record.sshPrivateKeyPath);
    code("sshPrivateKeyBookmark", record.sshPrivateKeyBookmark);
    code("ephemeral", record.ephemeral);
    code("autoSnapshotBeforeAgentStart", record.autoSnapshotBeforeAgentStart);
    code("startsWithDorvane", record.startsWithDorvane);
}

template <typename Coder>
void visitFields(auto& snapshot, const Coder& code) requires requires {
    snapshot.vmID;
}
{
    code("id", snapshot.id);
    code("vmID", snapshot.vmID);
    code("name", snapshot.name);
    code("createdAt", snapshot.createdAt);
    code("includesRAMState", snapshot.includesRAMState);
    code("guestOSTypeRaw", snapshot.guestOSTypeRaw);
    code("configHash", snapshot.configHash);
    code("logicalDiskSizeBytes", snapshot.logicalDiskSizeBytes);
    code("kindRaw", snapshot.kindRaw);
    code("storageRaw", snapshot.storageRaw);
    code("parentSnapshotID", snapshot.parentSnapshotID);
    code("takenWhileRunningRaw", snapshot.takenWhileRunningRaw);
}

template <typename Fields>
JSON encoded(const Fields& fields) {
    auto body = JSON::object();
    visitFields(fields, Encoder{body});
    return body;
}

template <typename Fields>
void decode(const JSON& body, Fields& fields) {
    const JSONReader reader(body, "The row");
    visitFields(fields, Decoder{reader});
}

}  // namespace

JSON encodeRow(const VMRecordFields& fields) { return encoded(fields); }
JSON encodeRow(const VMSnapshotFields& fields) { return encoded(fields); }
void decodeRow(const JSON& body, VMRecordFields& fields) { decode(body, fields); }
void decodeRow(const JSON& body, VMSnapshotFields& fields) { decode(body, fields); }

}  // namespace dorvane
