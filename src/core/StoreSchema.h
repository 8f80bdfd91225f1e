// SPDX-License-Identifier: Apache-2.0
// The tables of the library's store, and how an older store becomes today's.
#pragma once

#include <span>

namespace SQLite {
class Database;
}

namespace dorvane {

/// Step n makes version n + 1 from version n; a new store goes through all of them. Steps are only ever
/// added.
std::span<const char* const> storeMigrations();

/// Brings the store from the version that it says it has (`PRAGMA user_version`) to the number of steps, all
/// in one exclusive transaction or not at all. Throws StoreError for a newer store, SQLite::Exception for
/// anything else.
void migrateStore(SQLite::Database& database, std::span<const char* const> steps);

}  // namespace dorvane
