// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupManifest.h"

namespace dorvane {
namespace {

/// 2001-01-01, from which the other host's plain JSON coder counts seconds.
constexpr auto referenceDate = Date(std::chrono::seconds(978307200));
constexpr double earliestSecond = -978307200;
constexpr double latestSecond = 1e11;

Date decodedDate(const JSONReader& reader, std::string_view key) {
    const auto value = reader.required<JSON>(key);
    if (value.is_number()) {
        const auto seconds = value.get<double>();
        if (!(seconds >= earliestSecond && seconds < latestSecond)) detail::throwMistyped(key, "a date");
        return referenceDate + std::chrono::microseconds(static_cast<std::int64_t>(seconds * 1e6));
    }
    const auto date = parseISO8601(jsonValue<std::string>(value, key));
    if (!date) detail::throwMistyped(key, "a date");
    return *date;
}

template <typename T>
std::optional<T> nonEmpty(const T& list) {
    if (list.empty()) return std::nullopt;
    return list;
}

}  // namespace

JSON VMBackupManifest::encoded() const {
    JSON object{{"formatVersion", formatVersion},  {"createdAt", iso8601Text(createdAt)},
                {"appVersion", appVersion},        {"engineVersion", engineVersion},
                {"originalName", originalName},    {"originalDirectoryName", originalDirectoryName},
                {"originalVMPath", originalVMPath}};
    putOptional(object, "uncompressedBytes", uncompressedBytes);
    return object;
}

VMBackupManifest VMBackupManifest::decoded(const JSON& value) {
    const JSONReader reader(value, "The manifest");
    VMBackupManifest manifest;
    manifest.formatVersion = reader.required<std::int64_t>("formatVersion");
    manifest.createdAt = decodedDate(reader, "createdAt");
    manifest.appVersion = reader.required<std::string>("appVersion");
    // Old archives name the engine that was bundled then under another key.
    manifest.engineVersion = reader.optional<std::string>("engineVersion").value_or("");
    manifest.originalName = reader.required<std::string>("originalName");
    manifest.originalDirectoryName = reader.required<std::string>("originalDirectoryName");
    manifest.originalVMPath = reader.required<std::string>("originalVMPath");
    manifest.uncompressedBytes = reader.optional<std::uint64_t>("uncompressedBytes");
    return manifest;
}

VMBackupRecordSnapshot::VMBackupRecordSnapshot(const VMRecordFields& vm)
    : name(vm.name),
      osType(vm.osType),
      osVersionLabel(vm.osVersionLabel),
      vmPath(vm.vmPath),
      diskSizeBytes(vm.diskSizeBytes),
      memoryMB(vm.memoryMB),
      cpuCount(vm.cpuCount),
      imageSource(vm.imageSource),
      sharedFolders(vm.sharedFolders),
      pendingInstallerImagePath(vm.pendingInstallerImagePath),
      mountedImages(vm.mountedImages.value_or(std::vector<std::string>())),
      usbStorageDevices(vm.usbStorageDevices.value_or(std::vector<std::string>())),
      displayResolution(vm.displayResolution) {}

JSON VMBackupRecordSnapshot::encoded() const {
    auto folders = JSON::array();
    for (const auto& folder : sharedFolders) folders.push_back(folder.encoded());
    JSON object{{"name", name},
                {"osType", rawValue(osType)},
                {"vmPath", vmPath},
                {"diskSizeBytes", diskSizeBytes},
                {"memoryMB", memoryMB},
                {"cpuCount", cpuCount},
                {"sharedFolders", std::move(folders)},
                {"mountedImages", mountedImages},
                {"usbStorageDevices", usbStorageDevices}};
    putOptional(object, "osVersionLabel", osVersionLabel);
    putOptional(object, "imageSource", imageSource);
    putOptional(object, "pendingInstallerImagePath", pendingInstallerImagePath);
    if (displayResolution) object["displayResolution"] = displayResolution->encoded();
    return object;
}

VMBackupRecordSnapshot VMBackupRecordSnapshot::decoded(const JSON& value) {
    const JSONReader reader(value, "The record");
    VMBackupRecordSnapshot record;
    record.name = reader.required<std::string>("name");
    const auto os = osTypeFromRawValue(reader.required<std::string>("osType"));
    if (!os) detail::throwMistyped("osType", "one of its known values");
    record.osType = *os;
    record.osVersionLabel = reader.optional<std::string>("osVersionLabel");
    record.vmPath = reader.required<std::string>("vmPath");
    record.diskSizeBytes = reader.required<std::int64_t>("diskSizeBytes");
    record.memoryMB = reader.required<std::int64_t>("memoryMB");
    record.cpuCount = reader.required<std::int64_t>("cpuCount");
    record.imageSource = reader.optional<std::string>("imageSource");
    const auto folders = reader.optional<JSON>("sharedFolders").value_or(JSON::array());
    if (!folders.is_array()) detail::throwMistyped("sharedFolders", "an array");
    for (const auto& folder : folders) record.sharedFolders.push_back(SharedFolder::decoded(folder));
    record.pendingInstallerImagePath = reader.optional<std::string>("pendingInstallerImagePath");
    using Texts = std::vector<std::string>;
    record.mountedImages = reader.optional<Texts>("mountedImages").value_or(Texts());
    record.usbStorageDevices = reader.optional<Texts>("usbStorageDevices").value_or(Texts());
    if (const auto resolution = reader.optional<JSON>("displayResolution"))
        record.displayResolution = DisplayResolution::decoded(*resolution);
    return record;
}

VMRecordPointer VMBackupRecordSnapshot::makeRestoredVM(std::string restoredName,
                                                       const Path& restoredPath) const {
    auto vm = std::make_shared<VMRecord>();
    vm->name = std::move(restoredName);
    vm->vmPath = restoredPath.string();
    vm->osType = osType;
    vm->osVersionLabel = osVersionLabel;
    vm->diskSizeBytes = diskSizeBytes;
    vm->memoryMB = memoryMB;
    vm->cpuCount = cpuCount;
    vm->imageSource = imageSource;
    vm->sharedFolders = sharedFolders;
    vm->pendingInstallerImagePath = pendingInstallerImagePath;
    vm->mountedImages = nonEmpty(mountedImages);
    vm->usbStorageDevices = nonEmpty(usbStorageDevices);
    vm->displayResolution = displayResolution;
    return vm;
}

}  // namespace dorvane
