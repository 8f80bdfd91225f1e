// SPDX-License-Identifier: Apache-2.0
// Changes what a machine is made of.
#pragma once

#include "core/VMAccess.h"
#include "core/VMConfiguration.h"
#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

class VMRunControl;

/// Main thread only.
class VMReconfigurer {
  public:
    VMReconfigurer(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
                   const VMRunControl& runControl)
        : with_(with), library_(library), access_(access), runControl_(runControl) {}

    /// Absent request fields keep what is there; fields of another guest family are ignored. Everything is
    /// checked before anything is written. Throws vmBusy, invalidConfiguration, FileError or the disk tool's
    /// error.
    Task<void> update(VMRecordPointer vm, VMConfiguration request);

    /// Grows a disk to a size in bytes; the guest's partition stays as it is. Blocking, any thread.
    void growSystemDisk(const VMBundle& bundle, VMOSType os, std::uint64_t bytes) const;

  private:
    DorvaneVMConfig rewrite(const VMBundle& bundle, const VMConfiguration& request) const;

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    const VMRunControl& runControl_;
};

/// The machine description with the request applied. Throws invalidConfiguration. Pure, but for the port and
/// the token of shares that are set for the first time.
DorvaneVMConfig applying(const VMConfiguration& request, DorvaneVMConfig config, const HostSystem& host,
                         const WindowsGuestSupport* windowsSupport);

}  // namespace dorvane
