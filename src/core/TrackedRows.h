// SPDX-License-Identifier: Apache-2.0
// One table's rows in memory, and what has happened to them since they were last saved.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "base/UUID.h"

namespace dorvane {

/// `Row` derives from its plain value `Fields`; a row has changed when its fields differ from those last
/// saved.
template <typename Row, typename Fields>
class TrackedRows {
  public:
    using Pointer = std::shared_ptr<Row>;

    struct Changes {
        std::vector<Pointer> written;
        std::set<UUID> removed;
        bool isEmpty() const { return written.empty() && removed.empty(); }
    };

    /// Takes in a row as it stands in the store.
    void load(Pointer row) {
        const Fields& fields = *row;
        entries_.insert_or_assign(row->id, Entry{row, fields});
    }
    void insert(Pointer row) {
        row->isDeleted = false;
        removed_.erase(row->id);
        entries_[row->id] = Entry{row, std::nullopt};
    }
    void remove(const Pointer& row) {
        row->isDeleted = true;
        if (entries_.erase(row->id) > 0) removed_.insert(row->id);
    }

    /// Those that match, ascending by `createdAt`; rows of one moment in a stable order.
    template <typename Predicate>
    std::vector<Pointer> sorted(const Predicate& matches) const {
        std::vector<Pointer> rows;
        for (const auto& [id, entry] : entries_)
            if (matches(*entry.row)) rows.push_back(entry.row);
        std::stable_sort(rows.begin(), rows.end(),
                         [](const auto& a, const auto& b) { return a->createdAt < b->createdAt; });
        return rows;
    }

    Changes changes() const {
        Changes pending{{}, removed_};
        for (const auto& [id, entry] : entries_)
            if (entry.saved != static_cast<const Fields&>(*entry.row)) pending.written.push_back(entry.row);
        return pending;
    }
    void markSaved(const Changes& done) {
        for (const auto& row : done.written) entries_.at(row->id).saved = *row;
        removed_.clear();
    }

  private:
    struct Entry {
        Pointer row;
        std::optional<Fields> saved;
    };
    std::map<UUID, Entry> entries_;
    std::set<UUID> removed_;
};

}  // namespace dorvane
