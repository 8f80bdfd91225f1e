// SPDX-License-Identifier: Apache-2.0
// The one interface behind which a machine runs, whatever runs it.
#pragma once

#include <functional>
#include <variant>

#include "core/VMRecord.h"
#include "runtime/AsyncStream.h"
#include "runtime/Clock.h"

namespace dorvane {

/// Per-launch inputs that are not part of the machine description.
struct VMAttachments {
    std::vector<SharedFolder> sharedFolders;
    std::vector<std::string> mountedImages;
    std::vector<std::string> usbStorageDevices;
    std::optional<std::string> installerImagePath;
    std::optional<std::string> guestAgentPayloadPath;
    bool operator==(const VMAttachments&) const = default;
};

/// How a display client reaches the guest's screen.
struct GuestDisplaySource {
    struct Virtualization {
        bool operator==(const Virtualization&) const = default;
    };
    struct VNC {
        std::string socketPath;
        std::optional<std::string> agentSocketPath;
        bool operator==(const VNC&) const = default;
    };
    struct DBus {
        std::string qmpSocketPath;
        std::optional<std::string> agentSocketPath;
        bool operator==(const DBus&) const = default;
    };
    using Kind = std::variant<Virtualization, VNC, DBus>;
};

/// Whether the guest uses its accelerated display driver.
enum class AcceleratedDriverStatus { unknown, active, notInUse };

struct GuestDisplayHandle {
    std::string name;
    VMOSType os = VMOSType::windows;
    GuestDisplaySource::Kind source;
    bool sharesClipboard = false;
    bool acceptsFileDrops = false;
    /// Main thread only; absent when the display has no accelerated driver to ask about.
    std::function<std::optional<AcceleratedDriverStatus>()> acceleratedDriverStatus;
};

/// A connected guest agent stream; its operations belong to the guest agent's own folder.
class GuestAgentChannel {
  public:
    virtual ~GuestAgentChannel() = default;
};

/// How a parent layer's header is rewritten while a new top layer is attached.
struct SnapshotParentRewrite {
    std::string originalBacking;
    std::string newBacking;
    bool operator==(const SnapshotParentRewrite&) const = default;
};

/// Main thread only. "Throws" means a DorvaneError or a lower error. Status reads are plain and never wait.
class VMEngineProtocol {
  public:
    virtual ~VMEngineProtocol() = default;

    /// Starts the VM, or resumes it from a saved state in the bundle; returns when it runs.
    virtual Task<void> launch(UUID id, VMBundle bundle, VMAttachments attachments) = 0;
    /// Graceful unless `force`; stopping what doesn't run succeeds.
    virtual Task<void> stop(UUID id, bool force) = 0;
    virtual Task<void> pause(UUID id) = 0;
    virtual Task<void> resume(UUID id) = 0;
    virtual Task<void> saveState(UUID id, Path to) = 0;
    virtual bool canSaveStateNow(VMOSType os) const = 0;
    /// Switches a running VM to a new top disk layer, which stands where the previous one stood.
    virtual Task<void> attachSystemDiskOverlay(UUID id, Path overlay, Path movedPreviousLayerTo,
                                               std::optional<SnapshotParentRewrite> parentRewrite) = 0;
    /// Present while the engine knows the VM.
    virtual std::optional<VMStatus> status(const UUID& id) const = 0;
    /// The present status, then each change; ends when the VM is gone. Absent for an unknown VM.
    virtual std::optional<AsyncStream<VMStatus>> statusUpdates(const UUID& id) = 0;
    /// Kept after the VM is gone.
    virtual std::optional<VMStopReason> stopReason(const UUID& id) const = 0;
    virtual std::optional<std::string> macAddress(const UUID& id) const = 0;
    virtual Task<std::shared_ptr<GuestAgentChannel>> connectToGuestAgent(UUID id) = 0;
    virtual std::optional<GuestDisplayHandle> displayHandle(const UUID& id) = 0;
    virtual std::vector<UUID> runningVMIDs() const = 0;
    virtual bool hasRunningVMs() const = 0;
    /// Brings every VM down within `timeout` each.
    virtual Task<void> shutdownAll(Duration timeout) = 0;
};

}  // namespace dorvane
