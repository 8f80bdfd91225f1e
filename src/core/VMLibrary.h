// SPDX-License-Identifier: Apache-2.0
// The published list of machines and the store behind it.
#pragma once

#include <set>
#include <vector>

#include "core/ModelContext.h"
#include "runtime/Signal.h"

namespace dorvane {

/// Main thread only. Its operations never wait, so that each of them is whole before anything else runs.
class VMLibrary {
  public:
    /// `context` may be null: the list stays empty then, and nothing is kept.
    explicit VMLibrary(ModelContext* context) : context_(context) {}

    /// As last synced, ascending by creation.
    const std::vector<VMRecordPointer>& vms() const { return vms_; }
    /// Told after each new list.
    Signal<> published;

    /// Publishes what the store holds. Throws the store's error.
    void sync();
    void save();
    /// Saves, then syncs; only the save's error is thrown, since the change is kept by then.
    void commit();
    /// The same with failures logged, for ways out that have an error of their own to tell, or none.
    void commitQuietly();
    void saveQuietly();
    void syncQuietly();

    /// Keeps a new record. When that fails, it is as if the record had never been.
    void add(const VMRecordPointer& record);
    /// Puts a record in the context; kept with the next save.
    void insert(const VMRecordPointer& record);
    /// Removes the record and the machine's snapshots; gone with the next save.
    void remove(const VMRecordPointer& record);

    /// The live record in the list, else in a freshly synced one; null when there is none.
    VMRecordPointer find(const UUID& id);
    /// Compares exactly, with machines being made as well.
    bool isNameTaken(const std::string& name) const;
    /// Compares without regard to case, with every machine but this one.
    bool isNameTaken(const std::string& name, const VMRecord& byOtherThan) const;

    /// Holds a name and a directory for a machine being made, so that neither a second machine nor a refresh
    /// takes them meanwhile.
    class Reservation {
      public:
        /// Throws vmNameCollision, or vmCreationFailed for a directory that is being filled already.
        Reservation(VMLibrary& library, std::string name, std::string directory);
        Reservation(const Reservation&) = delete;
        Reservation& operator=(const Reservation&) = delete;
        ~Reservation();

      private:
        VMLibrary& library_;
        std::string name_;
        std::string directory_;
    };
    bool isReserved(const std::string& directory) const { return reservedDirectories_.contains(directory); }
    bool hasReservations() const { return !reservedDirectories_.empty(); }

  private:
    VMRecordPointer findPublished(const UUID& id) const;

    ModelContext* context_;
    std::vector<VMRecordPointer> vms_;
    std::set<std::string> reservedNames_;
    std::set<std::string> reservedDirectories_;
};

}  // namespace dorvane
