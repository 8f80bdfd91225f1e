// SPDX-License-Identifier: Apache-2.0
// Keeps two long operations off one machine.
#pragma once

#include <set>
#include <string>

#include "base/UUID.h"
#include "runtime/Signal.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only. One object is shared by all services of the process and passed to them.
class VMOperationGate {
  public:
    const std::set<UUID>& busyVMIDs() const { return busyVMIDs_; }
    bool isBusy(const UUID& vmID) const { return busyVMIDs_.contains(vmID); }
    Signal<> changed;

    /// Throws vmBusy when the machine is held.
    void begin(const UUID& vmID, const std::string& vmName);
    void end(const UUID& vmID);
    /// Throws vmBusy when the machine is held; takes no place.
    void requireFree(const UUID& vmID, const std::string& vmName) const;

    /// Holds the machine while the operation runs, on every way out.
    template <typename T>
    Task<T> perform(UUID vmID, std::string vmName, Task<T> operation) {
        const Hold hold(*this, vmID, vmName);
        co_return co_await std::move(operation);
    }

    /// Holds a machine for as long as it lives.
    class Hold {
      public:
        Hold(VMOperationGate& gate, const UUID& vmID, const std::string& vmName) : gate_(gate), vmID_(vmID) {
            gate_.begin(vmID, vmName);
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        ~Hold() { gate_.end(vmID_); }

      private:
        VMOperationGate& gate_;
        UUID vmID_;
    };

  private:
    std::set<UUID> busyVMIDs_;
};

}  // namespace dorvane
