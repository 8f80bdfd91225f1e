// SPDX-License-Identifier: Apache-2.0
// The library's rows without a store; counts saves and fails them on demand.
#pragma once

#include <algorithm>
#include <stdexcept>

#include "core/ModelContext.h"

namespace dorvane::test {

class InMemoryModelContext : public ModelContext {
  public:
    std::vector<VMRecordPointer> fetchRecords() override;
    std::vector<VMSnapshotPointer> fetchSnapshots(const UUID& vmID) override;
    void insert(VMRecordPointer record) override;
    void insert(VMSnapshotPointer snapshot) override;
    void remove(const VMRecordPointer& record) override;
    void remove(const VMSnapshotPointer& snapshot) override;
    void save() override;

    bool failNextSave = false;
    bool failFetches = false;
    int saveCount = 0;

  private:
    template <typename Row>
    static std::vector<Row> sorted(std::vector<Row> rows) {
        std::stable_sort(rows.begin(), rows.end(),
                         [](const auto& a, const auto& b) { return a->createdAt < b->createdAt; });
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
