// SPDX-License-Identifier: Apache-2.0
// The library's rows without a store; counts saves and fails them on demand.
#pragma once

#include <algorithm>
#include <stdexcept>

#include "core/ModelContext.h"

namespace dorvane::test {

class InMemoryModelContext : public ModelContext {
  public:
    std::vector<VMRecordPointer> fetchRecords() override { return sorted(records_); }
    std::vector<VMSnapshotPointer> fetchSnapshots(const UUID& vmID) override {
        auto snapshots = sorted(snapshots_);
        std::erase_if(snapshots, [&](const auto& snapshot) { return snapshot->vmID != vmID; });
        return snapshots;
    }
    void insert(VMRecordPointer record) override { add(records_, std::move(record)); }
    void insert(VMSnapshotPointer snapshot) override { add(snapshots_, std::move(snapshot)); }
    void remove(const VMRecordPointer& record) override { take(records_, record); }
    void remove(const VMSnapshotPointer& snapshot) override { take(snapshots_, snapshot); }
    void save() override {
        if (std::exchange(failNextSave, false)) throw std::runtime_error("the store can't be written");
        ++saveCount;
    }

    bool failNextSave = false;
    int saveCount = 0;

  private:
    template <typename Row>
    static std::vector<Row> sorted(std::vector<Row> rows) {
        std::ranges::stable_sort(rows, {}, [](const auto& row) { return row->createdAt; });
        return rows;
    }
    template <typename Row>
    static void add(std::vector<Row>& rows, Row row) {
        row->isDeleted = false;
        std::erase_if(rows, [&](const auto& other) { return other->id == row->id; });
        rows.push_back(std::move(row));
    }
    template <typename Row>
    static void take(std::vector<Row>& rows, const Row& row) {
        row->isDeleted = true;
        std::erase(rows, row);
    }

    std::vector<VMRecordPointer> records_;
    std::vector<VMSnapshotPointer> snapshots_;
};

}  // namespace dorvane::test
