// SPDX-License-Identifier: Apache-2.0
// The product's command line for a QEMU on Linux.
#pragma once

#include "platform/linux/LinuxQEMUHostFacts.h"
#include "qemu/QEMUHostAdapter.h"

namespace dorvane {

/// In the vector                               on this host
/// accelerator hvf                             kvm when the host is arm64 and /dev/kvm opens, else
/// tcg,thread=multi;
///                                             always as an -accel of its own
/// -cpu host                                   stays with kvm, else max,pauth-impdef=on
/// coreaudio                                   pipewire, pa or alsa, whichever the binary and the session
/// have, or none virtio-gpu-gl-pci, gl=es                    with a render node and a binary that has them,
/// else the basic device
///                                             and a plain D-Bus display
/// virt-N.M newer than the binary's newest     that newest
/// properties that the binary doesn't list     dropped, of the machine and of the inspected devices
/// -serial file: with escaped commas           without: QEMU takes this one path literally
/// (added)                                     no limit to the bandwidth of a saved state
/// (added without an installer)                no wait in the firmware's menu
///
/// Where the capabilities are unknown (empty), names and properties stay as they are.
class LinuxQEMUHostAdapter : public QEMUHostAdapter {
  public:
    explicit LinuxQEMUHostAdapter(const LinuxQEMUHostFacts& facts) : facts_(facts) {}

    std::vector<std::string> adapt(std::vector<std::string> arguments,
                                   const QEMUCapabilities& capabilities) const override;

  private:
    LinuxQEMUHostFacts facts_;
};

}  // namespace dorvane
