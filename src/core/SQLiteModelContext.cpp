// SPDX-License-Identifier: Apache-2.0
#include "core/SQLiteModelContext.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include "base/Localized.h"
#include "core/StoreCoding.h"
#include "core/StoreSchema.h"
#include "runtime/Logger.h"

namespace dorvane {
namespace {

/// How long an ending process may still hold the file.
constexpr int busyMilliseconds = 500;

/// A row that can't be read stays in the file untouched; the others are as good as before.
template <typename Rows>
void loadRows(SQLite::Database& database, const std::string& table, Rows& rows) {
    SQLite::Statement query(database, "SELECT id, body FROM " + table);
    while (query.executeStep()) {
        auto row = std::make_shared<typename Rows::Pointer::element_type>();
        try {
            decodeRow(parseJSON(query.getColumn(1).getString()), *row);
            rows.load(std::move(row));
        } catch (const JSONError& error) {
            Logger("PersistenceStore")
                .error("Skipping row %{public}s of %{public}s: %{public}s", query.getColumn(0).getString(),
                       table, error.what());
        }
    }
}

template <typename Changes>
void writeRows(SQLite::Database& database, const std::string& table, const Changes& changes) {
    SQLite::Statement removal(database, "DELETE FROM " + table + " WHERE id = ?");
    for (const auto& id : changes.removed) {
        removal.bind(1, id.text());
        removal.exec();
        removal.reset();
    }
    SQLite::Statement writing(database, "INSERT OR REPLACE INTO " + table + " (id, body) VALUES (?, ?)");
    for (const auto& row : changes.written) {
        writing.bind(1, row->id.text());
        writing.bind(2, compactJSON(encodeRow(*row)));
        writing.exec();
        writing.reset();
    }
}

}  // namespace

SQLiteModelContext::SQLiteModelContext(const Path& file) {
    try {
        open(file);
    } catch (const SQLite::Exception& error) {
        if (error.getErrorCode() == SQLITE_BUSY)
            throw StoreError(localized("Another Dorvane is using the library at %@.", file.string()));
        throw StoreError(localized("The library at %@ could not be opened: %@", file.string(), error.what()));
    }
}

SQLiteModelContext::~SQLiteModelContext() = default;

void SQLiteModelContext::open(const Path& file) {
    database_ = std::make_unique<SQLite::Database>(
        file.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, busyMilliseconds);
    database_->exec("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
    migrateStore(*database_, storeMigrations());
    loadRows(*database_, "records", records_);
    loadRows(*database_, "snapshots", snapshots_);
}

std::vector<VMRecordPointer> SQLiteModelContext::fetchRecords() {
    return records_.sorted([](const VMRecord&) { return true; });
}

std::vector<VMSnapshotPointer> SQLiteModelContext::fetchSnapshots(const UUID& vmID) {
    return snapshots_.sorted([&](const VMSnapshot& snapshot) { return snapshot.vmID == vmID; });
}

void SQLiteModelContext::save() {
    const auto records = records_.changes();
    const auto snapshots = snapshots_.changes();
    if (records.isEmpty() && snapshots.isEmpty()) return;
    try {
        SQLite::Transaction transaction(*database_, SQLite::TransactionBehavior::IMMEDIATE);
        writeRows(*database_, "records", records);
        writeRows(*database_, "snapshots", snapshots);
        transaction.commit();
    } catch (const SQLite::Exception& error) {
        throw StoreError(localized("The library could not be saved: %@", error.what()));
    }
    records_.markSaved(records);
    snapshots_.markSaved(snapshots);
}

}  // namespace dorvane
