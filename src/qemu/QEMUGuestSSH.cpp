// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUGuestSSH.h"

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
        const auto port = reservePort(id, config, bundle);
        if (!port) co_return std::nullopt;
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

std::optional<int> QEMUGuestSSH::reservePort(const UUID& id, DorvaneVMConfig& config,
                                             const VMBundle& bundle) {
    if (!config.windowsSSH) {
        config.windowsSSH = WindowsSSHConfig{true, WindowsSharesPortAllocator::pickFreePort(windowsSSHPorts)};
        QEMULaunchSettings::write(config, bundle);
    }
    const int configured = config.windowsSSH->hostPort;
    for (const int port : windowsSSHPorts.candidates(configured)) {
        auto reservation = reserveLoopbackPort(static_cast<std::uint16_t>(port));
        if (!reservation) continue;
        reservedPorts_[id] = std::move(reservation);
        if (port != configured) {
            logger_.info("SSH 端口 %{public}ld 被占,改用 %{public}ld", configured, port);
            config.windowsSSH->hostPort = port;
            QEMULaunchSettings::write(config, bundle);
        }
        return port;
    }
    logger_.error("SSH 转发端口全被占,这次不开 SSH");
    return std::nullopt;
}

}  // namespace dorvane
