// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotMetadata.h"

#include <gtest/gtest.h>

#include "core/DorvaneError.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using std::chrono::microseconds;

VMSnapshotFields fullRow() {
    return {.vmID = UUID::random(),
            .name = "Before the update \"2\" 更新",
            .createdAt = *parseISO8601("2026-11-21T08:43:19Z") + microseconds(654321),
            .includesRAMState = true,
            .guestOSTypeRaw = "windows",
            .configHash = std::string(64, 'a'),
            .logicalDiskSizeBytes = std::int64_t{1} << 40,
            .kindRaw = "automatic",
            .storageRaw = "chain",
            .parentSnapshotID = UUID::random(),
            .takenWhileRunningRaw = false};
}

TEST(SnapshotMetadata, ARowComesBackFromItsFileToTheSecond) {
    auto row = fullRow();
    const test::TemporaryDirectory directory;
    const VMBundle bundle(directory.path());
    const auto file = SnapshotMetadata::file(bundle, row.id);
    std::filesystem::create_directories(file.parent_path());
    const auto written = SnapshotMetadata::of(row);
    EXPECT_EQ(written.formatVersion, 4);
    written.write(file);
    EXPECT_EQ(SnapshotMetadata::read(file), written);

    row.createdAt -= microseconds(654321);
    EXPECT_EQ(SnapshotMetadata::read(file).row(row.vmID), row);
    row.guestOSTypeRaw = "beos";
    EXPECT_THROW(SnapshotMetadata::of(row), DorvaneError);
}

TEST(SnapshotMetadata, TheFileHasItsKeysInOrder) {
    auto metadata = SnapshotMetadata::of(fullRow());
    metadata.id = *UUID::parse("0123ABCD-0000-4000-8000-000000000001");
    metadata.parentSnapshotID = UUID::parse("0123ABCD-0000-4000-8000-000000000002");
    metadata.name = "n";
    metadata.configHash = "h";
    metadata.takenWhileRunning.reset();
    EXPECT_EQ(metadata.encoded(), R"({
  "formatVersion": 4,
  "id": "0123ABCD-0000-4000-8000-000000000001",
  "name": "n",
  "createdAt": "2026-11-21T08:43:19Z",
  "includesRAMState": true,
  "guestOSType": "windows",
  "configHash": "h",
  "logicalDiskSizeBytes": 1099511627776,
  "kind": "automatic",
  "storage": "chain",
  "parentSnapshotID": "0123ABCD-0000-4000-8000-000000000002"
})");
}

JSON firstVersion() {
    return {{"formatVersion", 1},
            {"id", "0123abcd-0000-4000-8000-000000000001"},
            {"name", "old"},
            {"createdAt", "2024-01-31T00:00:00Z"},
            {"includesRAMState", false},
            {"guestOSType", "macos"},
            {"configHash", ""},
            {"logicalDiskSizeBytes", 0},
            {"addedLater", {1, 2}}};
}

TEST(SnapshotMetadata, AnOldFileKeepsWhatItLacksAbsent) {
    const auto metadata = SnapshotMetadata::decoded(compactJSON(firstVersion()));
    EXPECT_EQ(metadata.formatVersion, 1);
    EXPECT_EQ(metadata.guestOSType, VMOSType::macOS);
    EXPECT_EQ(metadata.kind, std::nullopt);
    EXPECT_EQ(metadata.storage, std::nullopt);
    EXPECT_EQ(metadata.parentSnapshotID, std::nullopt);
    EXPECT_EQ(metadata.takenWhileRunning, std::nullopt);
    EXPECT_EQ(SnapshotMetadata::decoded(metadata.encoded()), metadata);

    VMSnapshot row;
    static_cast<VMSnapshotFields&>(row) = metadata.row(UUID::random());
    EXPECT_EQ(row.kind(), VMSnapshotKind::manual);
    EXPECT_EQ(row.storage(), VMSnapshotStorage::clone);
    EXPECT_FALSE(row.takenWhileRunning());
}

TEST(SnapshotMetadata, WhatIsNoDescriptionIsRefused) {
    for (const auto& [key, value] :
         std::vector<std::pair<std::string, JSON>>{{"formatVersion", "4"},
                                                   {"id", "not an identifier"},
                                                   {"name", 7},
                                                   {"createdAt", "yesterday"},
                                                   {"includesRAMState", 1},
                                                   {"guestOSType", "beos"},
                                                   {"configHash", nullptr},
                                                   {"logicalDiskSizeBytes", 1.5},
                                                   {"logicalDiskSizeBytes", std::uint64_t{1} << 63},
                                                   {"kind", 1},
                                                   {"parentSnapshotID", "short"},
                                                   {"takenWhileRunning", "yes"}}) {
        auto object = firstVersion();
        object[key] = value;
        EXPECT_THROW(SnapshotMetadata::decoded(compactJSON(object)), JSONError) << key;
    }
    for (const char* key : {"formatVersion", "id", "name", "createdAt", "includesRAMState", "guestOSType",
                            "configHash", "logicalDiskSizeBytes"}) {
        auto object = firstVersion();
        object.erase(key);
        EXPECT_THROW(SnapshotMetadata::decoded(compactJSON(object)), JSONError) << key;
    }
    for (const char* text : {"", "[]", "null", "{\"formatVersion\":4"})
        EXPECT_THROW(SnapshotMetadata::decoded(text), JSONError) << text;
}

}  // namespace
}  // namespace dorvane
