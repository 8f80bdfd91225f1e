// SPDX-License-Identifier: Apache-2.0
// Takes machines out of the library and off the disk.
#pragma once

#include "core/VMAccess.h"
#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

class VMRunControl;
class VMStatusWatcher;

/// Main thread only.
class VMDeleter {
  public:
    VMDeleter(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
              VMRunControl& runControl, VMStatusWatcher& watcher)
        : with_(with), library_(library), access_(access), runControl_(runControl), watcher_(watcher) {}

    /// Powers the machine off if it runs, and removes directory, snapshots and record. Throws vmBusy,
    /// vmNotFound for a machine that is gone already, vmDeleteFailed when the directory stays (then the
    /// record stays too), or the engine's or the store's own error.
    Task<void> remove(VMRecordPointer vm, bool permanently);

  private:
    Task<void> powerOff(VMRecordPointer vm);
    /// Where the directory went, if it went anywhere.
    Task<std::optional<Path>> dispose(VMRecordPointer vm, bool permanently);

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    VMRunControl& runControl_;
    VMStatusWatcher& watcher_;
};

}  // namespace dorvane
