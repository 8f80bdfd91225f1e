// SPDX-License-Identifier: Apache-2.0
// Everything that VMService is built from.
#pragma once

#include <functional>

#include "core/GuestAddressResolving.h"
#include "core/GuestAgentPayloadStaging.h"
#include "core/GuestClockSyncing.h"
#include "core/GuestProvisioningStoring.h"
#include "core/HostFramebufferCapturing.h"
#include "core/LinuxBootEvidenceInspecting.h"
#include "core/LiveDiskFlattening.h"
#include "core/LongOperationRegistry.h"
#include "core/MacOSInstalling.h"
#include "core/ModelContext.h"
#include "core/SecurityScopedBookmarkStore.h"
#include "core/SettingsService.h"
#include "core/VMBundleRecovering.h"
#include "core/VMDirectoryDisposer.h"
#include "core/VMEngineProtocol.h"
#include "core/VMLogReading.h"
#include "core/VMOperationGate.h"
#include "core/WindowsGuestSupport.h"
#include "platform/FileManager.h"
#include "platform/HostSystem.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// All of it outlives the service. What another folder implements is null where this build or host lacks it;
/// the operation that needs it then says so.
struct VMServiceCollaborators {
    const Runtime& runtime;
    VMEngineProtocol& engine;
    SettingsService& settings;
    VMOperationGate& gate;
    LongOperationRegistry& longOperations;
    FileManager& fileManager;
    const HostSystem& host;
    VMDirectoryDisposing& directoryDisposer;
    SecurityScopedBookmarkStore& bookmarks;
    /// Null: nothing is kept.
    ModelContext* modelContext = nullptr;

    /// The bundles of one storage folder; throws when it can't be listed. Called on background threads.
    std::function<std::vector<VMBundle>(const Path&)> bundleScanner = VMBundle::scanBundles;
    const WindowsGuestSupport* windowsSupport = nullptr;
    const LiveDiskFlattening* diskFlattening = nullptr;
    VMBundleRecovering* recovery = nullptr;
    const LinuxBootEvidenceInspecting* bootEvidence = nullptr;
    const GuestAgentPayloadStaging* agentPayload = nullptr;
    const GuestAddressResolving* addresses = nullptr;
    const VMLogReading* log = nullptr;
    GuestClockSyncing* clockSync = nullptr;
    HostFramebufferCapturing* framebufferCapture = nullptr;
    MacOSInstalling* macOSInstaller = nullptr;
    GuestProvisioningStoring* provisioningStore = nullptr;
};

}  // namespace dorvane
