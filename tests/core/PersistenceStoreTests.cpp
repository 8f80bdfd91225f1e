// SPDX-License-Identifier: Apache-2.0
#include "core/PersistenceStore.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/StoreSchema.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;

Date at(std::int64_t microseconds) { return Date(Date::duration(microseconds)); }

VMRecordPointer fullRecord() {
    auto record = std::make_shared<VMRecord>();
    record->name = "dev \"é\" 💻";
    record->osType = VMOSType::linux;
    record->osVersionLabel = "Ubuntu 24.04";
    record->vmPath = "/vms/dev";
    record->diskSizeBytes = std::int64_t{1} << 62;
    record->memoryMB = 4096;
    record->cpuCount = 4;
    record->status = VMStatus::paused;
    record->lastLaunchedAt = at(1'700'000'000'123'456);
    record->createdAt = at(-5);
    record->updatedAt = at(7);
    record->tags = {"a", ""};
    record->imageSource = "x.iso";
    record->sharedFolders = {{UUID::random(), "/home", "home", true}};
    record->pendingInstallerImagePath = "/x.iso";
    record->mountedImages.emplace();
    record->usbStorageDevices = {"/usb.img"};
    record->displayResolution = {1440, 900};
    record->bookmarksByPath = {{"/x.iso", Bytes{0, 255}}};
    record->sshUsername = "me";
    record->sshPrivateKeyPath = "/key";
    record->sshPrivateKeyBookmark = Bytes{};
    record->ephemeral = EphemeralInfo{at(1), at(2), UUID::random()};
    record->autoSnapshotBeforeAgentStart = false;
    record->startsWithDorvane = true;
    return record;
}

VMRecordPointer record(const std::string& name, Date createdAt = {}) {
    auto row = std::make_shared<VMRecord>();
    row->name = name;
    row->createdAt = createdAt;
    return row;
}

std::vector<std::string> names(const auto& rows) {
    std::vector<std::string> all;
    for (const auto& row : rows) all.push_back(row->name);
    return all;
}

class PersistenceStoreTest : public testing::Test {
  protected:
    std::unique_ptr<ModelContext> open() { return PersistenceStore::makeModelContainer(folder.path()); }
    std::string openingFailure() {
        return errorOf([this] { open(); }).text();
    }
    Path file() const { return folder / "Dorvane" / "Dorvane.store"; }
    SQLite::Database raw() const { return {file().string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE}; }

    TemporaryDirectory folder;
    LogCapture log;
};

TEST_F(PersistenceStoreTest, everyFieldSurvivesAReopening) {
    const auto full = fullRecord();
    const auto plain = record("plain", at(10));
    auto snapshot = std::make_shared<VMSnapshot>();
    snapshot->vmID = full->id;
    snapshot->parentSnapshotID = UUID::random();
    snapshot->takenWhileRunningRaw = true;
    snapshot->storageRaw = "chain";
    {
        const auto store = open();
        store->insert(full);
        store->insert(plain);
        store->insert(snapshot);
        store->save();
    }
    const auto store = open();
    const auto rows = store->fetchRecords();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(static_cast<VMRecordFields&>(*rows[0]), static_cast<VMRecordFields&>(*full));
    EXPECT_EQ(static_cast<VMRecordFields&>(*rows[1]), static_cast<VMRecordFields&>(*plain));
    ASSERT_EQ(store->fetchSnapshots(full->id).size(), 1U);
    EXPECT_EQ(static_cast<VMSnapshotFields&>(*store->fetchSnapshots(full->id)[0]),
              static_cast<VMSnapshotFields&>(*snapshot));
    EXPECT_TRUE(store->fetchSnapshots(plain->id).empty());
    EXPECT_EQ(store->fetchRecords()[0], rows[0]);
}

TEST_F(PersistenceStoreTest, changesAndRemovalsReachTheStoreWithTheNextSave) {
    const auto keep = record("keep", at(3)), drop = record("drop", at(2)), late = record("late", at(1));
    {
        const auto store = open();
        for (const auto& row : {keep, drop}) store->insert(row);
        store->save();
        keep->name = "kept";
        store->remove(drop);
        EXPECT_TRUE(drop->isDeleted);
        store->insert(late);
        EXPECT_EQ(names(store->fetchRecords()), (std::vector<std::string>{"late", "kept"}));
    }
    {
        const auto store = open();
        EXPECT_EQ(names(store->fetchRecords()), (std::vector<std::string>{"drop", "keep"}));
        const auto again = store->fetchRecords()[0];
        store->remove(again);
        store->insert(again);
        EXPECT_FALSE(again->isDeleted);
        store->fetchRecords()[1]->name = "kept";
        store->save();
    }
    EXPECT_EQ(names(open()->fetchRecords()), (std::vector<std::string>{"drop", "kept"}));
}

TEST_F(PersistenceStoreTest, aFailedSaveWritesNothingAndKeepsEverythingPending) {
    const auto good = record("good", at(1)), refused = record("refused", at(2));
    good->id = *UUID::parse("00000000-0000-0000-0000-000000000001");
    refused->id = *UUID::parse("00000000-0000-0000-0000-000000000002");
    open();
    raw().exec(
        "CREATE TRIGGER refusal BEFORE INSERT ON records WHEN NEW.body LIKE '%refused%' "
        "BEGIN SELECT RAISE(ABORT, 'disk full'); END");
    const auto failToSave = [&](ModelContext& store) {
        store.insert(good);
        store.insert(refused);
        EXPECT_THAT([&] { store.save(); },
                    testing::ThrowsMessage<StoreError>("The library could not be saved: disk full"));
    };
    failToSave(*open());
    const auto store = open();
    EXPECT_TRUE(store->fetchRecords().empty());
    failToSave(*store);
    refused->name = "accepted";
    store->save();
    EXPECT_EQ(names(store->fetchRecords()), (std::vector<std::string>{"good", "accepted"}));
}

TEST_F(PersistenceStoreTest, anOlderBodyWithoutLaterFieldsLoadsAndABadRowHidesNoOther) {
    open();
    const auto id = UUID::random().text();
    {
        auto database = raw();
        const auto insert = [&](const std::string& key, const std::string& body) {
            database.exec("INSERT INTO records VALUES ('" + key + "', '" + body + "')");
        };
        insert(id,
               R"({"id":")" + id + R"(","name":"old","osType":"macos","backendModeRaw":"native","vmPath":"/v",
            "diskSizeBytes":1,"memoryMB":2,"cpuCount":3,"status":"error","createdAt":0,"updatedAt":0,"tags":[],
            "sharedFolders":[],"unknownLaterField":true})");
        insert("bad", R"({"id":"bad"})");
        insert("worse", "no JSON");
    }
    const auto rows = open()->fetchRecords();
    ASSERT_EQ(names(rows), std::vector<std::string>{"old"});
    EXPECT_FALSE(rows[0]->displayResolution);
    EXPECT_TRUE(log.contains("Skipping row bad of records"));
    EXPECT_TRUE(log.contains("Skipping row worse of records"));
    EXPECT_EQ(raw().execAndGet("SELECT count(*) FROM records").getInt(), 3);
}

TEST_F(PersistenceStoreTest, whatIsNoLibraryOfOursIsRefusedWithItsReason) {
    open();
    raw().exec("PRAGMA user_version = 99");
    EXPECT_NE(openingFailure().find("newer version of Dorvane"), std::string::npos);
    EXPECT_EQ(raw().execAndGet("PRAGMA user_version").getInt(), 99);

    fs::remove(file());
    writeFileAtomically(file(), std::string(5000, 'x'));
    EXPECT_NE(openingFailure().find("file is not a database"), std::string::npos) << openingFailure();
    EXPECT_EQ(readTextFile(file()), std::string(5000, 'x'));

    fs::remove(file());
    fs::create_directory(file());
    EXPECT_NE(openingFailure().find("unable to open database file"), std::string::npos) << openingFailure();

    fs::remove_all(folder / "Dorvane");
    writeFileAtomically(folder / "Dorvane", "");
    EXPECT_NE(openingFailure().find("Could not create"), std::string::npos) << openingFailure();
}

TEST_F(PersistenceStoreTest, migrationGoesThroughEveryMissingStepOrNone) {
    fs::create_directory(folder / "Dorvane");
    auto database = raw();
    const std::array first{"CREATE TABLE t (a)"};
    const std::array broken{"CREATE TABLE t (a)", "CREATE TABLE u (b)", "CREATE TABLE t (again)"};
    const std::array second{"CREATE TABLE t (a)", "ALTER TABLE t ADD COLUMN b"};
    migrateStore(database, first);
    database.exec("INSERT INTO t VALUES (1)");
    EXPECT_THROW(migrateStore(database, broken), SQLite::Exception);
    EXPECT_EQ(database.execAndGet("PRAGMA user_version").getInt(), 1);
    EXPECT_FALSE(database.tableExists("u"));
    migrateStore(database, second);
    migrateStore(database, second);
    EXPECT_EQ(database.execAndGet("SELECT a FROM t WHERE b IS NULL").getInt(), 1);
    EXPECT_EQ(database.execAndGet("PRAGMA user_version").getInt(), 2);
}

/// Runs `work` in a process of its own and returns its wait status.
int inChild(const std::function<void()>& work) {
    const auto child = ::fork();
    if (child == 0) {
        work();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

/// The moment of a save at which the process is killed; by default once it is done. A row is counted by a
/// trigger that calls `row_written`.
struct Death {
    int afterRows = 0;
    bool inCommit = false;
};
Death death;

void dieHere() { ::kill(::getpid(), SIGKILL); }

int arm(sqlite3* database, const char**, const sqlite3_api_routines*) {
    const auto countRow = [](sqlite3_context*, int, sqlite3_value**) {
        if (death.afterRows > 0 && --death.afterRows == 0) dieHere();
    };
    sqlite3_create_function(database, "row_written", 0, SQLITE_UTF8, nullptr, countRow, nullptr, nullptr);
    const auto commit = [](void*) {
        if (death.inCommit) dieHere();
        return 0;
    };
    sqlite3_commit_hook(database, commit, nullptr);
    return SQLITE_OK;
}

TEST_F(PersistenceStoreTest, aKilledProcessLeavesEverySaveWholeOrAbsent) {
    constexpr int rowCount = 60;
    {
        const auto store = open();
        for (int i = 0; i < rowCount; ++i) store->insert(record("before", at(i)));
        store->save();
    }
    raw().exec("CREATE TRIGGER counter AFTER INSERT ON records BEGIN SELECT row_written(); END");
    const std::vector<std::pair<Death, std::string>> moments{{{.afterRows = 1}, "before"},
                                                             {{.afterRows = rowCount / 2}, "before"},
                                                             {{.afterRows = rowCount}, "before"},
                                                             {{.inCommit = true}, "before"},
                                                             {{}, "after"}};
    for (const auto& [moment, expected] : moments) {
        const auto status = inChild([&] {
            sqlite3_auto_extension(reinterpret_cast<void (*)()>(arm));
            const auto store = open();
            for (const auto& row : store->fetchRecords()) row->name = "after";
            death = moment;
            store->save();
            dieHere();
        });
        ASSERT_TRUE(WIFSIGNALED(status)) << expected << status;
        const auto rows = open()->fetchRecords();
        ASSERT_EQ(names(rows), std::vector<std::string>(rowCount, expected));
    }
}

TEST_F(PersistenceStoreTest, aLibraryInUseIsRefused) {
    const auto store = open();
    const auto status = inChild([&] {
        const auto expected = "Another Dorvane is using the library at " + file().string() + ".";
        ::_exit(openingFailure() == expected ? 42 : 1);
    });
    EXPECT_EQ(WEXITSTATUS(status), 42);
    store->insert(record("still mine"));
    store->save();
}

}  // namespace
}  // namespace dorvane::test
