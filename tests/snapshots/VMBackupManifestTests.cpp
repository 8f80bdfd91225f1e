// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupManifest.h"

#include <gtest/gtest.h>

namespace dorvane::test {
namespace {

TEST(VMBackupManifest, HasExactlyItsKeys) {
    VMBackupManifest manifest;
    manifest.createdAt = *parseISO8601("2026-03-04T05:06:07Z");
    manifest.appVersion = "1.2";
    manifest.engineVersion = "11.1.3";
    manifest.originalName = "Work";
    manifest.originalDirectoryName = "work";
    manifest.originalVMPath = "/vms/work";
    EXPECT_EQ(manifest.encoded(), parseJSON(R"({"formatVersion": 1, "createdAt": "2026-03-04T05:06:07Z",
        "appVersion": "1.2", "engineVersion": "11.1.3", "originalName": "Work", "originalDirectoryName": "work",
        "originalVMPath": "/vms/work"})"));
    EXPECT_EQ(VMBackupManifest::decoded(manifest.encoded()), manifest);
    manifest.uncompressedBytes = UINT64_MAX;
    EXPECT_EQ(VMBackupManifest::decoded(parseJSON(prettyJSON(manifest.encoded()))), manifest);
}

TEST(VMBackupManifest, ReadsOldOnesAndRefusesBrokenOnes) {
    const auto old = parseJSON(R"({"formatVersion": 1, "createdAt": 794293567.5, "appVersion": "0.9",
        "bundledLumeVersion": "0.2", "originalName": "a", "originalDirectoryName": "a", "originalVMPath": "/a"})");
    const auto manifest = VMBackupManifest::decoded(old);
    EXPECT_EQ(iso8601Text(manifest.createdAt), "2026-03-04T05:06:07Z");
    EXPECT_EQ(manifest.engineVersion, "");
    EXPECT_FALSE(manifest.encoded().contains("bundledLumeVersion"));
    const auto broken = [&](const char* key, const JSON& value) {
        auto changed = old;
        changed[key] = value;
        EXPECT_THROW(VMBackupManifest::decoded(changed), JSONError) << key << " " << value.dump();
    };
    broken("formatVersion", "1");
    broken("createdAt", "yesterday");
    broken("createdAt", 1e300);
    broken("originalName", nullptr);
    broken("uncompressedBytes", -1);
    EXPECT_THROW(VMBackupManifest::decoded(JSON::array()), JSONError);
}

TEST(VMBackupRecordSnapshot, TakesOverWhatTheUserSaid) {
    VMRecordFields vm;
    vm.name = "Work";
    vm.osType = VMOSType::macOS;
    vm.osVersionLabel = "macOS 27";
    vm.vmPath = "/vms/work";
    vm.diskSizeBytes = std::int64_t{64} << 30;
    vm.memoryMB = 4096;
    vm.cpuCount = 4;
    vm.imageSource = "restore.ipsw";
    vm.sharedFolders = {{UUID::random(), "/somewhere/share", "share", true}};
    vm.pendingInstallerImagePath = "/iso/a.iso";
    vm.mountedImages = {{"/iso/b.iso"}};
    vm.displayResolution = DisplayResolution{1440, 900};
    vm.tags = {"not in a backup"};
    vm.status = VMStatus::error;
    const VMBackupRecordSnapshot snapshot(vm);
    EXPECT_EQ(VMBackupRecordSnapshot::decoded(parseJSON(prettyJSON(snapshot.encoded()))), snapshot);
    EXPECT_EQ(snapshot.encoded().size(), 13u);

    const auto restored = snapshot.makeRestoredVM("Again", "/vms/again");
    EXPECT_NE(restored->id, vm.id);
    auto expected = vm;
    expected.id = restored->id;
    expected.name = "Again";
    expected.vmPath = "/vms/again";
    expected.status = VMStatus::stopped;
    expected.tags = {};
    EXPECT_EQ(static_cast<VMRecordFields&>(*restored), expected);
}

TEST(VMBackupRecordSnapshot, LeavesOutWhatIsAbsent) {
    const VMBackupRecordSnapshot empty{VMRecordFields{}};
    const auto json = empty.encoded();
    for (const auto* key :
         {"osVersionLabel", "imageSource", "pendingInstallerImagePath", "displayResolution"})
        EXPECT_FALSE(json.contains(key)) << key;
    EXPECT_EQ(json["mountedImages"], JSON::array());
    EXPECT_FALSE(empty.makeRestoredVM("a", "/a")->mountedImages);
    auto broken = json;
    broken["osType"] = "plan9";
    EXPECT_THROW(VMBackupRecordSnapshot::decoded(broken), JSONError);
    broken = json;
    broken["sharedFolders"] = {1};
    EXPECT_THROW(VMBackupRecordSnapshot::decoded(broken), JSONError);
}

}  // namespace
}  // namespace dorvane::test
