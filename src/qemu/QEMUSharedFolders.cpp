// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUSharedFolders.h"

#include <set>

#include "base/Text.h"
#include "core/DorvaneError.h"
#include "qemu/QEMULaunchSettings.h"
#include "qemu/WindowsShareName.h"
#include "qemu/WindowsSharesGuestScript.h"
#include "qemu/WindowsSharesPortAllocator.h"

namespace dorvane {
namespace {

std::string chosenName(const SharedFolder& folder) {
    std::string wanted(trimmed(folder.mountPoint));
    if (!wanted.empty()) return wanted;
    Path path(folder.localPath);
    // With slashes at its end it has no name of its own.
    if (!path.has_filename()) path = path.parent_path();
    const auto valid = WindowsShareName::validate(path.filename().string());
    const auto* name = std::get_if<std::string>(&valid);
    return name != nullptr ? *name : "Shared";
}

Path resolved(const std::string& localPath) {
    std::error_code unresolved;
    auto path = std::filesystem::weakly_canonical(localPath, unresolved);
    return unresolved ? Path(localPath).lexically_normal() : path;
}

std::vector<std::string> names(const std::vector<GuestFileShare>& shares) {
    std::vector<std::string> result;
    for (const auto& share : shares) result.push_back(share.name);
    return result;
}

}  // namespace

QEMUSharedFolders::ShareList QEMUSharedFolders::shareList(const std::vector<SharedFolder>& folders) {
    ShareList list;
    std::set<std::string> taken;
    for (const auto& folder : folders) {
        const auto name = chosenName(folder);
        const auto valid = WindowsShareName::validate(name);
        if (!std::holds_alternative<std::string>(valid) || !taken.insert(lowercased(name)).second) {
            list.skipped.push_back(name);
            continue;
        }
        list.shares.push_back({name, resolved(folder.localPath), folder.readOnly});
    }
    return list;
}

Task<void> QEMUSharedFolders::prepare(UUID id, DorvaneVMConfig& config, VMBundle bundle,
                                      std::vector<SharedFolder> folders, QEMURuntimeDirectory directory) {
    const bool isOff = config.windowsShares && !config.windowsShares->enabled;
    if (config.os != VMOSType::windows || isOff || folders.empty()) co_return;
    try {
        co_await publish(id, config, std::move(bundle), std::move(folders), std::move(directory));
    } catch (...) {
        if (isCancellation(std::current_exception())) throw;
        const auto reason = localizedDescription(std::current_exception());
        logger_.error("共享目录服务启动失败: %{public}s", reason);
        fail(id, reason);
    }
}

Task<void> QEMUSharedFolders::publish(UUID id, DorvaneVMConfig& config, VMBundle bundle,
                                      std::vector<SharedFolder> folders, QEMURuntimeDirectory directory) {
    if (!config.windowsShares) {
        config.windowsShares =
            WindowsSharesConfig{true, WindowsSharesPortAllocator::pickFreePort(windowsSharesPorts),
                                WindowsSharesPortAllocator::makeToken()};
        QEMULaunchSettings::write(config, bundle);
    }
    const auto list = shareList(folders);
    if (list.shares.empty()) {
        fail(id, localized("No shared folders could be published to this guest."));
        co_return;
    }
    stop(id);
    const auto settings = *config.windowsShares;
    const auto port = co_await startServer(id, settings, list.shares);
    if (port != settings.hostPort) {
        logger_.info("共享目录端口 %{public}ld 被占,改用 %{public}ld", settings.hostPort, port);
        config.windowsShares->hostPort = port;
        QEMULaunchSettings::write(config, bundle);
    }
    writeGuestScript(directory, port, settings.token);
    GuestFileServerStatus::Running running{port, WindowsSharesGuestScript::guestURL(port, settings.token),
                                           names(list.shares), settings.hostPort, list.skipped};
    registry_.set(id, GuestFileServerStatus{std::move(running)});
}

Task<int> QEMUSharedFolders::startServer(UUID id, WindowsSharesConfig settings,
                                         std::vector<GuestFileShare> shares) {
    if (!makeServer_)
        throw std::runtime_error(localized("This build cannot share folders with Windows guests yet."));
    GuestFileServerConfiguration configuration;
    configuration.vmID = id;
    configuration.token = settings.token;
    configuration.shares = std::move(shares);
    configuration.portCandidates = windowsSharesPorts.candidates(settings.hostPort);
    const auto server = makeServer_(std::move(configuration));
    co_await server->start();
    servers_[id] = server;
    co_return server->boundPort().value_or(settings.hostPort);
}

void QEMUSharedFolders::writeGuestScript(const QEMURuntimeDirectory& directory, int port,
                                         const std::string& token) const {
    try {
        directory.writeSharesDisk(port, token);
    } catch (const std::exception& error) {
        logger_.error("共享目录脚本盘写入失败: %{public}s", error.what());
    }
}

void QEMUSharedFolders::fail(const UUID& id, std::string message) {
    registry_.set(id, GuestFileServerStatus{GuestFileServerStatus::Failed{std::move(message)}});
}

void QEMUSharedFolders::stop(const UUID& id) {
    registry_.remove(id);
    if (auto node = servers_.extract(id)) node.mapped()->stop();
}

void QEMUSharedFolders::stopAll() {
    while (!servers_.empty()) stop(UUID(servers_.begin()->first));
}

}  // namespace dorvane
