// SPDX-License-Identifier: Apache-2.0
// Makes new machines.
#pragma once

#include "core/VMConfiguration.h"
#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

/// Main thread only.
class VMCreator {
  public:
    VMCreator(const VMServiceCollaborators& with, VMLibrary& library) : with_(with), library_(library) {}

    /// Throws invalidConfiguration, vmNameCollision, vmCreationFailed, or the disk's or the store's own
    /// error; no directory and no record stay behind then.
    Task<VMRecordPointer> create(std::string name, VMOSType os, VMConfiguration request);

    /// How far the macOS installation in progress has come; absent when there is none.
    const std::optional<MacOSInstallPhase>& macOSInstallPhase() const { return macOSInstallPhase_; }
    Signal<> macOSInstallPhaseChanged;

  private:
    struct Made;

    Task<Made> make(VMOSType os, Path directory, VMConfiguration request);
    Task<Made> installMacOS(Path directory, VMConfiguration request);
    void publish(std::optional<MacOSInstallPhase> phase);
    VMRecordPointer record(const std::string& name, const Path& directory, const Made& made,
                           const VMConfiguration& request) const;

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    std::optional<MacOSInstallPhase> macOSInstallPhase_;
};

}  // namespace dorvane
