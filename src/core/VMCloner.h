// SPDX-License-Identifier: Apache-2.0
// Copies machines.
#pragma once

#include "core/VMAccess.h"
#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

class VMRunControl;

/// Main thread only.
class VMCloner {
  public:
    VMCloner(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
             const VMRunControl& runControl)
        : with_(with), library_(library), access_(access), runControl_(runControl) {}

    /// A new machine with the source's disk and settings and an identity of its own: cold, without snapshots.
    /// Holds the source's gate throughout. Throws invalidConfiguration, vmNameCollision, vmBusy,
    /// vmCloneFailed, or the store's own error; nothing stays behind then, and the source is never written
    /// to.
    Task<VMRecordPointer> clone(VMRecordPointer vm, std::string newName);

  private:
    DorvaneVMConfig copyBundle(const VMBundle& source, const Path& staging, const Path& target) const;
    DorvaneVMConfig prepareCopy(const VMBundle& copy) const;
    VMRecordPointer record(const VMRecord& source, const std::string& name, const Path& directory,
                           const DorvaneVMConfig& config) const;

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    const VMRunControl& runControl_;
};

}  // namespace dorvane
