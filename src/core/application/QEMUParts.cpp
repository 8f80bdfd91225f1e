// SPDX-License-Identifier: Apache-2.0
#include "core/application/QEMUParts.h"

#include "core/DorvaneError.h"
#include "qemu/QEMUImageChainTool.h"

namespace dorvane {

QEMUParts::QEMUParts(const HostServices& host)
    : host_(host),
      capabilities_(host.runtime),
      keyStore_(host.runtime, host.directories.applicationSupport),
      windowsGuestSupport_([this] { return locate(); }, host.system.version(), std::nullopt),
      chainStore_(makeChainStore()),
      engine_(makeContext()) {}

std::optional<QEMURuntimeResources> QEMUParts::locate() const {
    std::vector<QEMURuntimeResources> candidates;
    for (const auto& root : host_.qemuPackageRoots)
        candidates.push_back(QEMURuntimeResources::packaged(root));
    candidates.push_back(QEMURuntimeResources::systemInstalled("/"));
    return QEMURuntimeResources::locate(candidates, host_.environment);
}

std::optional<SnapshotChainStore> QEMUParts::makeChainStore() const {
    const auto tool = QEMUImageChainTool::locate(locate());
    if (!tool) return std::nullopt;
    return SnapshotChainStore(std::make_shared<QEMUImageChainTool>(*tool));
}

QEMUEngineContext QEMUParts::makeContext() {
    return {
        .runtime = host_.runtime,
        .processes = host_.processes,
        .defaults = host_.defaults,
        .adapter = host_.qemuHostAdapter,
        .capabilities = capabilities_,
        .keyStore = keyStore_,
        .guestTools = guestTools_,
        .fileServers = fileServers_,
        .resourceLocator = [this] { return locate(); },
        .temporaryDirectory = host_.directories.temporary,
        .environment = host_.environment,
        .hostSystemVersion = host_.system.version(),
        .declaredMinimumSystemVersion = std::nullopt,
        .sandboxGroupRequirement = GraphicsSandboxGroup::Requirement(),
    };
}

Task<void> QEMUParts::warmUp() {
    const auto resources = locate();
    if (!resources || !host_.qemuHostAdapter.needsCapabilities()) co_return;
    try {
        co_await capabilities_.capabilities(resources->executable, resources->environment);
    } catch (const std::exception& error) {
        Logger("QEMUParts").info("Could not ask QEMU what it can do: %{public}s", error.what());
    }
}

}  // namespace dorvane
