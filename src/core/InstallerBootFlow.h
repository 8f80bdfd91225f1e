// SPDX-License-Identifier: Apache-2.0
// The installer image of a machine: there until the guest has installed itself.
#pragma once

#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

/// Main thread only; disks are looked at in the background.
class InstallerBootFlow {
  public:
    InstallerBootFlow(const VMServiceCollaborators& with, VMLibrary& library)
        : with_(with), library_(library) {}

    /// The user says that the installation is done. Throws invalidConfiguration.
    void complete(VMRecord& vm);
    /// Before a start: forgets the image when the disk already holds a system that boots.
    Task<void> dropImageIfSystemIsBootable(VMRecordPointer vm);
    /// After a stop: the same, and says whether it did. Stamps `updatedAt` then; the caller saves.
    Task<bool> autoComplete(VMRecordPointer vm);
    /// The same with the disk already looked at.
    bool autoComplete(VMRecord& vm, bool showsInstalledSystem);

    /// A Linux guest that is down and still has its image.
    static bool shouldAttempt(const VMRecord& vm);
    /// Blocking, any thread.
    bool showsInstalledSystem(const VMBundle& bundle) const;
    /// The same in the background. Once begun, it no longer needs this object.
    Task<bool> inspect(VMBundle bundle) const;

  private:
    Date now() const { return with_.runtime.clock.date(); }

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
};

}  // namespace dorvane
