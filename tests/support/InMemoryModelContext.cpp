// SPDX-License-Identifier: Apache-2.0
#include "support/InMemoryModelContext.h"

namespace dorvane::test {

std::vector<VMRecordPointer> InMemoryModelContext::fetchRecords() {
    if (failFetches) throw std::runtime_error("the store can't be read");
    return sorted(records_);
}

std::vector<VMSnapshotPointer> InMemoryModelContext::fetchSnapshots(const UUID& vmID) {
    if (failFetches) throw std::runtime_error("the store can't be read");
    auto snapshots = sorted(snapshots_);
    std::erase_if(snapshots, [&](const auto& snapshot) { return snapshot->vmID != vmID; });
    return snapshots;
}

void InMemoryModelContext::insert(VMRecordPointer record) { add(records_, std::move(record)); }

void InMemoryModelContext::insert(VMSnapshotPointer snapshot) { add(snapshots_, std::move(snapshot)); }

void InMemoryModelContext::remove(const VMRecordPointer& record) { take(records_, record); }

void InMemoryModelContext::remove(const VMSnapshotPointer& snapshot) { take(snapshots_, snapshot); }

void InMemoryModelContext::save() {
    if (std::exchange(failNextSave, false)) throw std::runtime_error("the store can't be written");
    ++saveCount;
}

}  // namespace dorvane::test
