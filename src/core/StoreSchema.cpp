// SPDX-License-Identifier: Apache-2.0
#include "core/StoreSchema.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>

#include <array>

#include "base/Localized.h"
#include "core/ModelContext.h"

namespace dorvane {
namespace {

constexpr std::array migrations{
    "CREATE TABLE records (id TEXT PRIMARY KEY, body TEXT NOT NULL) STRICT;"
    "CREATE TABLE snapshots (id TEXT PRIMARY KEY, body TEXT NOT NULL) STRICT;",
};

}  // namespace

std::span<const char* const> storeMigrations() { return migrations; }

void migrateStore(SQLite::Database& database, std::span<const char* const> steps) {
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::EXCLUSIVE);
    const auto newest = static_cast<int>(steps.size());
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    if (version < 0 || version > newest)
        throw StoreError(
            localized("The library was written by a newer version of Dorvane (its format is %d, and this "
                      "version reads up to %d). Update Dorvane to open it.",
                      version, newest));
    for (const auto* step : steps.subspan(static_cast<std::size_t>(version))) database.exec(step);
    database.exec("PRAGMA user_version = " + std::to_string(newest));
    transaction.commit();
}

}  // namespace dorvane
