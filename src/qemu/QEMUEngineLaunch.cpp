// SPDX-License-Identifier: Apache-2.0
// A launch from its request to its end, and what remains to be done when a child has gone.
#include "core/DorvaneError.h"
#include "qemu/QEMUEngine.h"

namespace dorvane {
namespace {

constexpr auto formerEndTimeout = seconds(10.0);
constexpr auto formerEndInterval = milliseconds(100);
constexpr auto bootPromptTime = seconds(90.0);
constexpr auto bootPromptInterval = milliseconds(150);

/// The firmware asks for any key before it starts an installer.
Task<void> coverInstallerBootPrompt(std::weak_ptr<QEMUProcessSupervisor> weak, Clock& clock) {
    const auto deadline = clock.now() + bootPromptTime;
    while (clock.now() < deadline) {
        const auto supervisor = weak.lock();
        if (!supervisor || supervisor->isTerminated()) co_return;
        try {
            co_await supervisor->sendKey("spc");
        } catch (const std::exception&) {
            if (isCancellation(std::current_exception())) throw;
        }
        co_await clock.sleep(bootPromptInterval);
    }
}

/// Without the words that every failed start begins with.
std::string reasonOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const DorvaneError& failure) {
        if (failure.which() == DorvaneError::Case::vmStartupFailed) return failure.text();
    } catch (...) {
        // As it describes itself.
    }
    return localizedDescription(error);
}

}  // namespace

Task<void> QEMUEngine::launch(UUID id, VMBundle bundle, VMAttachments attachments) {
    if (!launchingIDs_.insert(id).second)
        throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, bundle.name());
    std::exception_ptr failure;
    try {
        co_await launchUnguarded(id, std::move(bundle), std::move(attachments));
    } catch (...) {
        failure = std::current_exception();
    }
    launchingIDs_.erase(id);
    const bool wasGivenUp = abandonedIDs_.erase(id) > 0 || isCancellation(failure);
    if (!failure) co_return;
    // Refused because the machine runs, it says nothing about the machine.
    if (!find(id))
        lastStopReasons_[id] = wasGivenUp ? VMStopReason::forced() : VMStopReason::failure(reasonOf(failure));
    std::rethrow_exception(failure);
}

Task<void> QEMUEngine::launchUnguarded(UUID id, VMBundle bundle, VMAttachments attachments) {
    throwIfAbandoned(id);
    if (const auto known = find(id)) {
        co_await waitForStoppedChild(known);
        if (!known->isTerminated()) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, known->name());
        // Its watch hasn't run yet, and must not clear away what this launch makes.
        didEnd(id, known);
    }
    auto plan = co_await makePlan(preparation_.readInputs(id, bundle, attachments));
    const auto supervisor =
        std::make_shared<QEMUProcessSupervisor>(runtime_, context_.processes, id, plan.config, bundle);
    supervisor->setRuntimeDirectory(runtimeDirectories_.at(id));
    supervisors_[id] = supervisor;
    std::exception_ptr failure;
    try {
        co_await supervisor->start(plan.launch);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        co_await didFailToStart(id, supervisor, plan.launch.restoringFrom.has_value(), failure, attachments);
    else
        co_await didStart(id, supervisor, std::move(plan), attachments.installerImagePath.has_value());
}

Task<QEMULaunchPlan> QEMUEngine::makePlan(QEMULaunchInputs inputs) {
    const auto id = inputs.id;
    co_await waitForEndingChild(id);
    const auto directory = QEMURuntimeDirectory::make(id, context_.temporaryDirectory);
    runtimeDirectories_.insert_or_assign(id, directory);
    try {
        auto plan = co_await preparation_.prepare(std::move(inputs), directory);
        throwIfAbandoned(id);
        co_return plan;
    } catch (...) {
        cleanUpRuntime(id);
        throw;
    }
}

/// A guest that was deaf to its stop takes some seconds more to go, and a restart doesn't wait for it.
Task<void> QEMUEngine::waitForStoppedChild(SupervisorPointer known) {
    if (!known->didRequestStop()) co_return;
    std::function<bool()> hasEnded = [known] { return known->isTerminated(); };
    co_await pollUntil(runtime_.clock, formerEndTimeout, formerEndInterval, std::move(hasEnded));
}

/// The disk of a child that is being ended is still locked.
Task<void> QEMUEngine::waitForEndingChild(UUID id) {
    std::function<bool()> hasEnded = [this, id] {
        std::erase_if(ending_, [](const auto& supervisor) { return supervisor->isTerminated(); });
        return std::ranges::none_of(ending_, [&](const auto& supervisor) { return supervisor->id() == id; });
    };
    co_await pollUntil(runtime_.clock, formerEndTimeout, formerEndInterval, std::move(hasEnded));
}

void QEMUEngine::throwIfAbandoned(const UUID& id) {
    if (isShuttingDown_ || abandonedIDs_.contains(id))
        throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                           localized("The VM was stopped while it was starting."));
}

Task<void> QEMUEngine::didStart(UUID id, SupervisorPointer supervisor, QEMULaunchPlan plan,
                                bool hasInstaller) {
    const auto& name = supervisor->name();
    if (plan.launch.restoringFrom) {
        preparation_.dropSavedState(plan, supervisor->bundle());
        logger_.info("已从挂起现场恢复 %{public}s", name);
    }
    watchForTermination(id, supervisor);
    if (hasInstaller) {
        auto prompt = coverInstallerBootPrompt(supervisor, runtime_.clock);
        keep(spawn(runtime_.main.executor(), std::move(prompt), "installer boot prompt"));
    }
    logger_.info("Launched QEMU VM %{public}s", name);
    // The machine runs, whoever gives up waiting. The digest was read beside the launch and is long since
    // there.
    co_await ignoreCancellation();
    auto engine = co_await plan.engineDigest.value();
    supervisor->setSuspendFingerprint({std::move(plan.devicesDigest), std::move(engine)});
}

Task<void> QEMUEngine::didFailToStart(UUID id, SupervisorPointer supervisor, bool wasRestoring,
                                      std::exception_ptr error, VMAttachments attachments) {
    supervisors_.erase(id);
    cleanUpRuntime(id);
    if (!supervisor->isTerminated()) ending_.push_back(supervisor);
    if (supervisor->didRequestStop()) abandonedIDs_.insert(id);
    if (!wasRestoring || isCancellation(error)) std::rethrow_exception(error);
    // The child must be gone before the disk is touched again.
    std::function<bool()> hasEnded = [supervisor] { return supervisor->isTerminated(); };
    co_await pollUntil(runtime_.clock, formerEndTimeout, formerEndInterval, std::move(hasEnded));
    const auto& bundle = supervisor->bundle();
    const auto reason = reasonOf(error);
    if (supervisor->didRequestStop()) {
        logger_.info("恢复 %{public}s 途中被停止,保留挂起现场", bundle.name());
        std::rethrow_exception(error);
    }
    if (!supervisor->restoreRejectedState()) {
        logger_.error("恢复 %{public}s 失败但现场完好,保留(%{public}s)", bundle.name(), reason);
        throw DorvaneError(DorvaneError::Case::suspendedStateRestoreFailed, bundle.name(), reason);
    }
    logger_.info("挂起现场不可用(%{public}s),丢弃并冷启动 %{public}s", reason, bundle.name());
    bundle.discardSavedState();
    co_await launchUnguarded(id, bundle, std::move(attachments));
}

void QEMUEngine::watchForTermination(const UUID& id, const SupervisorPointer& supervisor) {
    if (supervisor->isTerminated())
        didEnd(id, supervisor);
    else
        keep(spawn(runtime_.main.executor(), watch(this, life_, id, supervisor), "QEMU termination watch"));
}

Task<void> QEMUEngine::watch(QEMUEngine* engine, std::weak_ptr<void> life, UUID id,
                             SupervisorPointer supervisor) {
    auto updates = supervisor->statusUpdates();
    for (;;) {
        const auto status = co_await updates.next();
        if (life.expired()) co_return;
        if (!status) break;
    }
    engine->didEnd(id, supervisor);
}

void QEMUEngine::didEnd(const UUID& id, const SupervisorPointer& supervisor) {
    if (find(id) != supervisor) return;
    if (const auto& reason = supervisor->stopReason()) {
        lastStopReasons_[id] = *reason;
        logger_.info("VM %{public}s 已终止 (原因: %{public}s)", supervisor->name(), describe(*reason));
    }
    supervisors_.erase(id);
    cleanUpRuntime(id);
}

void QEMUEngine::cleanUpRuntime(const UUID& id) {
    preparation_.release(id);
    if (const auto node = runtimeDirectories_.extract(id)) node.mapped().remove();
}

}  // namespace dorvane
