// SPDX-License-Identifier: Apache-2.0
// The library's rows in memory and the store behind them.
#pragma once

#include <stdexcept>
#include <vector>

#include "core/VMRecord.h"
#include "core/VMSnapshot.h"

namespace dorvane {

/// The library's store can't be opened, read or written; the sentence says why.
class StoreError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Main thread only. A fetch gives the same object for the same row every time; changes to an object reach
/// the store with the next `save`, all of them in one transaction or none.
class ModelContext {
  public:
    virtual ~ModelContext() = default;

    /// All records, ascending by `createdAt`. Throws StoreError when the store can't be read.
    virtual std::vector<VMRecordPointer> fetchRecords() = 0;
    /// One machine's snapshots, ascending by `createdAt`.
    virtual std::vector<VMSnapshotPointer> fetchSnapshots(const UUID& vmID) = 0;

    /// The `id`, and a snapshot's `vmID`, must not change from here on.
    virtual void insert(VMRecordPointer record) = 0;
    virtual void insert(VMSnapshotPointer snapshot) = 0;
    /// Sets `isDeleted`; the row goes with the next `save`.
    virtual void remove(const VMRecordPointer& record) = 0;
    virtual void remove(const VMSnapshotPointer& snapshot) = 0;

    /// Writes every insertion, change and removal. Throws StoreError, and keeps them pending, when the store
    /// can't.
    virtual void save() = 0;
};

}  // namespace dorvane
