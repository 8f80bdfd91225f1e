// SPDX-License-Identifier: Apache-2.0
// The library's rows in an SQLite file.
#pragma once

#include "core/ModelContext.h"
#include "core/TrackedRows.h"
#include "runtime/Files.h"

namespace SQLite {
class Database;
}

namespace dorvane {

/// Main thread only. Reads every row when it opens and holds the file alone until it goes, so that what
/// stands in memory is what stands in the file. Each `save` is one transaction, on disk when it returns:
/// whatever ends the process, the next one finds every save whole or not at all.
class SQLiteModelContext : public ModelContext {
  public:
    /// Makes the file when there is none and migrates an older one. Throws StoreError: it is no library, a
    /// newer version's, in use by another process, or can't be read or written.
    explicit SQLiteModelContext(const Path& file);
    ~SQLiteModelContext() override;

    std::vector<VMRecordPointer> fetchRecords() override;
    std::vector<VMSnapshotPointer> fetchSnapshots(const UUID& vmID) override;
    void insert(VMRecordPointer record) override { records_.insert(std::move(record)); }
    void insert(VMSnapshotPointer snapshot) override { snapshots_.insert(std::move(snapshot)); }
    void remove(const VMRecordPointer& record) override { records_.remove(record); }
    void remove(const VMSnapshotPointer& snapshot) override { snapshots_.remove(snapshot); }
    void save() override;

  private:
    void open(const Path& file);

    std::unique_ptr<SQLite::Database> database_;
    TrackedRows<VMRecord, VMRecordFields> records_;
    TrackedRows<VMSnapshot, VMSnapshotFields> snapshots_;
};

}  // namespace dorvane
