// SPDX-License-Identifier: Apache-2.0
// The QEMU engine with everything that it is made of.
#pragma once

#include "core/application/HostServices.h"
#include "qemu/QEMUEngine.h"
#include "qemu/QEMUWindowsGuestSupport.h"
#include "snapshots/SnapshotChainStore.h"

namespace dorvane {

/// Main thread only. `host` outlives it.
class QEMUParts {
  public:
    explicit QEMUParts(const HostServices& host);

    QEMUEngine& engine() { return engine_; }
    const QEMUWindowsGuestSupport& windowsGuestSupport() const { return windowsGuestSupport_; }
    /// Null when this installation has no disk image tool.
    const SnapshotChainStore* chainStore() const { return chainStore_ ? &*chainStore_ : nullptr; }
    /// Asks the emulator what it can do, so that the first start needn't wait for it. Never throws.
    Task<void> warmUp();

  private:
    std::optional<QEMURuntimeResources> locate() const;
    QEMUEngineContext makeContext();
    std::optional<SnapshotChainStore> makeChainStore() const;

    const HostServices& host_;
    QEMUCapabilitiesCache capabilities_;
    GuestKeyStore keyStore_;
    GuestToolsRegistry guestTools_;
    GuestFileServerRegistry fileServers_;
    QEMUWindowsGuestSupport windowsGuestSupport_;
    std::optional<SnapshotChainStore> chainStore_;
    QEMUEngine engine_;
};

}  // namespace dorvane
