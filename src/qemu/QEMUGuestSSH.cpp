// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUGuestSSH.h"

#include <algorithm>

#include "core/DorvaneError.h"
#include "qemu/QEMULaunchSettings.h"
#include "qemu/WindowsSharesPortAllocator.h"
#include "runtime/Sockets.h"

namespace dorvane {

Task<std::optional<int>> QEMUGuestSSH::prepare(UUID id, DorvaneVMConfig& config, VMBundle bundle,
                                               QEMURuntimeDirectory directory) {
    if (config.os != VMOSType::windows || (config.windowsSSH && !config.windowsSSH->enabled))
        co_return std::nullopt;
    try {
        const auto port = choosePort(config, bundle);
        if (!port) co_return std::nullopt;
        // Held while the key is made, so that another launch doesn't take it.
        reservedPorts_[id] = *port;
        const auto keys = co_await keyStore_.keyPair(id);
        directory.writeSSHDisk(keys.publicKey);
        co_return port;
    } catch (...) {
        release(id);
        if (isCancellation(std::current_exception())) throw;
        logger_.error("SSH 公钥准备失败: %{public}s", localizedDescription(std::current_exception()));
    }
    co_return std::nullopt;
}

std::optional<int> QEMUGuestSSH::choosePort(DorvaneVMConfig& config, const VMBundle& bundle) const {
    if (!config.windowsSSH) {
        config.windowsSSH = WindowsSSHConfig{true, WindowsSharesPortAllocator::pickFreePort(windowsSSHPorts)};
        QEMULaunchSettings::write(config, bundle);
    }
    const int configured = config.windowsSSH->hostPort;
    const auto candidates = windowsSSHPorts.candidates(configured);
    const auto port = std::ranges::find_if(candidates, [this](int candidate) { return isFree(candidate); });
    if (port == candidates.end()) {
        logger_.error("SSH 转发端口全被占,这次不开 SSH");
        return std::nullopt;
    }
    if (*port != configured) {
        logger_.info("SSH 端口 %{public}ld 被占,改用 %{public}ld", configured, *port);
        config.windowsSSH->hostPort = *port;
        QEMULaunchSettings::write(config, bundle);
    }
    return *port;
}

bool QEMUGuestSSH::isFree(int port) const {
    const bool isReserved =
        std::ranges::any_of(reservedPorts_, [port](const auto& entry) { return entry.second == port; });
    return !isReserved && isLoopbackPortFree(static_cast<std::uint16_t>(port));
}

}  // namespace dorvane
