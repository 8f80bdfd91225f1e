// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUEngine.h"

#include "core/DorvaneError.h"
#include "qemu/AcceleratedDriverProbe.h"
#include "qemu/QEMUStaleInstance.h"
#include "qemu/WindowsDisplaySwitch.h"

namespace dorvane {
namespace {

constexpr auto gracefulTimeout = seconds(30.0);
constexpr auto saveTimeout = seconds(900.0);
/// A little longer than the kill timers of the children.
constexpr auto lastEndTimeout = seconds(6.0);
constexpr auto lastEndInterval = milliseconds(100);

bool sharesClipboard(const DorvaneVMConfig& config) {
    switch (config.os) {
        case VMOSType::macOS:
            return false;
        case VMOSType::linux:
            return config.linuxClipboard.value_or(false);
        case VMOSType::windows:
            break;
    }
    return config.windowsClipboard.value_or(true);
}

}  // namespace

QEMUEngine::QEMUEngine(QEMUEngineContext context)
    : context_(std::move(context)),
      runtime_(context_.runtime),
      preparation_(context_),
      guestToolsSubscription_(
          context_.guestTools.changed.connect([this](const UUID& id) { noteGuestToolsCurrent(id); })) {}

Task<void> QEMUEngine::stop(UUID id, bool force) {
    const auto supervisor = find(id);
    // A child that was stopped before may be the former one, for whose end the launch waits.
    if (launchingIDs_.contains(id) && (!supervisor || supervisor->didRequestStop())) abandonedIDs_.insert(id);
    if (supervisor) co_await supervisor->stop(force, gracefulTimeout);
}

Task<void> QEMUEngine::pause(UUID id) {
    const auto supervisor = require(id);
    co_await supervisor->pause();
}

Task<void> QEMUEngine::resume(UUID id) {
    const auto supervisor = require(id);
    co_await supervisor->resume();
}

Task<void> QEMUEngine::saveState(UUID id, Path to) {
    const auto supervisor = require(id);
    co_await supervisor->saveState(std::move(to), saveTimeout);
}

Task<void> QEMUEngine::attachSystemDiskOverlay(UUID id, Path overlay, Path movedPreviousLayerTo,
                                               std::optional<SnapshotParentRewrite> parentRewrite) {
    const auto supervisor = require(id);
    co_await supervisor->attachSystemDiskOverlay(std::move(overlay), std::move(movedPreviousLayerTo),
                                                 std::move(parentRewrite));
}

Task<void> QEMUEngine::endLeftoverEmulator(UUID id) {
    if (find(id) || launchingIDs_.contains(id)) co_return;
    const auto directory = QEMURuntimeDirectory::make(id, context_.temporaryDirectory);
    const QEMUStaleInstance stale(runtime_, context_.processes);
    co_await stale.clear(directory);
    if (!find(id) && !launchingIDs_.contains(id)) directory.remove();
}

std::optional<VMStatus> QEMUEngine::status(const UUID& id) const {
    const auto supervisor = find(id);
    return supervisor ? std::optional(supervisor->status()) : std::nullopt;
}

std::optional<AsyncStream<VMStatus>> QEMUEngine::statusUpdates(const UUID& id) {
    const auto supervisor = find(id);
    return supervisor ? std::optional(supervisor->statusUpdates()) : std::nullopt;
}

std::optional<VMStopReason> QEMUEngine::stopReason(const UUID& id) const {
    if (const auto supervisor = find(id); supervisor && supervisor->stopReason())
        return supervisor->stopReason();
    const auto last = lastStopReasons_.find(id);
    return last == lastStopReasons_.end() ? std::nullopt : std::optional(last->second);
}

std::optional<std::string> QEMUEngine::macAddress(const UUID& id) const {
    const auto supervisor = find(id);
    return supervisor ? std::optional(supervisor->config().macAddress) : std::nullopt;
}

Task<std::shared_ptr<GuestAgentChannel>> QEMUEngine::connectToGuestAgent(UUID id) {
    const auto supervisor = find(id);
    if (!supervisor || supervisor->isTerminated())
        throw DorvaneError(DorvaneError::Case::guestAgentUnavailable, localized("The VM is not running."));
    throw DorvaneError(DorvaneError::Case::guestAgentNotEnabled, supervisor->name());
    co_return nullptr;
}

std::optional<GuestDisplayHandle> QEMUEngine::displayHandle(const UUID& id) {
    const auto supervisor = find(id);
    const auto directory = runtimeDirectories_.find(id);
    if (!supervisor || supervisor->isTerminated() || directory == runtimeDirectories_.end())
        return std::nullopt;
    const auto& config = supervisor->config();
    GuestDisplayHandle handle;
    handle.name = supervisor->name();
    handle.os = config.os;
    handle.sharesClipboard = sharesClipboard(config);
    handle.acceptsFileDrops = config.os == VMOSType::windows && config.windowsFileDrop.value_or(true);
    const auto agent = directory->second.agentSocket().string();
    if (!std::filesystem::exists(directory->second.displaySocket())) {
        handle.source = GuestDisplaySource::VNC{directory->second.vncSocket().string(), agent};
        return handle;
    }
    handle.source = GuestDisplaySource::DBus{directory->second.displaySocket().string(), agent};
    handle.acceleratedDriverStatus = [weak = std::weak_ptr(supervisor), &clock = runtime_.clock,
                                      &processes =
                                          context_.processes]() -> std::optional<AcceleratedDriverStatus> {
        const auto alive = weak.lock();
        if (!alive) return std::nullopt;
        return alive->acceleratedDriverStatus(clock.now(), [&processes](int pid, const Path& renderServer) {
            return AcceleratedDriverProbe::contextCount(processes, pid, renderServer);
        });
    };
    return handle;
}

std::vector<UUID> QEMUEngine::runningVMIDs() const {
    std::vector<UUID> ids;
    for (const auto& supervisor : liveSupervisors()) ids.push_back(supervisor->id());
    return ids;
}

Task<void> QEMUEngine::shutdownAll(Duration timeout) {
    isShuttingDown_ = true;
    const auto running = liveSupervisors();
    if (!running.empty()) logger_.info("应用退出前关闭 %ld 台 QEMU 客体", running.size());
    std::vector<TaskHandle> stops;
    for (const auto& supervisor : running)
        stops.push_back(spawn(runtime_.main.executor(), supervisor->stop(false, timeout), "QEMU stop"));
    for (const auto& stop : stops) co_await stop.finished();
    // The kill timers of the last children must come to their end while this process lives.
    auto waiting = running;
    waiting.insert(waiting.end(), ending_.begin(), ending_.end());
    std::function<bool()> allEnded = [this, waiting] {
        return launchingIDs_.empty() && std::ranges::all_of(waiting, [](const auto& supervisor) {
                   return supervisor->isTerminated();
               });
    };
    co_await pollUntil(runtime_.clock, lastEndTimeout, lastEndInterval, std::move(allEnded));
    preparation_.releaseAll();
    for (const auto& [id, directory] : std::exchange(runtimeDirectories_, {})) directory.remove();
}

void QEMUEngine::noteGuestToolsCurrent(const UUID& id) {
    const auto supervisor = find(id);
    if (!supervisor || !context_.guestTools.state(id)) return;
    try {
        if (WindowsDisplaySwitch::noteGuestTools(supervisor->config(), supervisor->bundle()))
            logger_.info("%{public}s 的客体工具已就位,下次冷启动切到 virtio-gpu", supervisor->name());
    } catch (const std::exception& error) {
        logger_.error("The guest tools of %{public}s could not be noted: %{public}s", supervisor->name(),
                      error.what());
    }
}

void QEMUEngine::keep(TaskHandle task) {
    std::erase_if(tasks_, [](const TaskHandle& known) { return known.isFinished(); });
    tasks_.push_back(std::move(task));
}

QEMUEngine::SupervisorPointer QEMUEngine::find(const UUID& id) const {
    const auto found = supervisors_.find(id);
    return found == supervisors_.end() ? nullptr : found->second;
}

QEMUEngine::SupervisorPointer QEMUEngine::require(const UUID& id) const {
    if (auto supervisor = find(id)) return supervisor;
    throw DorvaneError(DorvaneError::Case::vmNotRunning, id.text());
}

std::vector<QEMUEngine::SupervisorPointer> QEMUEngine::liveSupervisors() const {
    std::vector<SupervisorPointer> live;
    for (const auto& [id, supervisor] : supervisors_)
        if (!supervisor->isTerminated()) live.push_back(supervisor);
    return live;
}

}  // namespace dorvane
