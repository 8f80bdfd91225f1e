// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMULaunchPreparation.h"

#include "base/Text.h"
#include "core/DorvaneError.h"
#include "core/SettingsService.h"
#include "qemu/QEMUChildEnvironment.h"
#include "qemu/QEMUCommandBuilder.h"
#include "qemu/QEMUImageTool.h"
#include "qemu/QEMUStaleInstance.h"
#include "qemu/QEMUSuspendDecision.h"
#include "qemu/WindowsDisplaySwitch.h"
#include "qemu/WindowsGuestAvailability.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using SandboxKind = GraphicsSandboxGroup::Requirement::Kind;

std::vector<std::string> traceEvents(const std::string& text) {
    std::vector<std::string> events;
    for (const auto& piece : split(text, ','))
        if (const auto event = trimmed(piece); !event.empty()) events.emplace_back(event);
    return events;
}

/// The host may have put the basic device in its place.
bool showsAccelerated(const std::vector<std::string>& arguments) {
    return std::ranges::any_of(
        arguments, [](const auto& argument) { return argument.starts_with("virtio-gpu-gl-pci"); });
}

}  // namespace

QEMULaunchPreparation::QEMULaunchPreparation(const QEMUEngineContext& context)
    : context_(context),
      sharedFolders_(context.makeFileServer, context.fileServers),
      guestSSH_(context.keyStore),
      digests_(context.runtime) {}

QEMULaunchInputs QEMULaunchPreparation::readInputs(UUID id, VMBundle bundle,
                                                   VMAttachments attachments) const {
    auto config = DorvaneVMConfig::read(bundle.configFile());
    if (WindowsDisplaySwitch::apply(config, bundle))
        logger_.info("客体工具已就位,%{public}s 改用 virtio-gpu 显示", bundle.name());
    if (const auto problem = WindowsGuestAvailability::systemRequirementProblem(
            context_.hostSystemVersion, context_.declaredMinimumSystemVersion))
        throw DorvaneError(DorvaneError::Case::vmStartupFailed, problem->reason());
    auto resources = context_.resourceLocator();
    if (!resources)
        throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                           localized("The Windows virtualization components are missing from this build."));
    return {id, std::move(bundle), std::move(attachments), std::move(config), std::move(*resources)};
}

Task<QEMULaunchPlan> QEMULaunchPreparation::prepare(QEMULaunchInputs inputs, QEMURuntimeDirectory directory) {
    auto engineDigest = digests_.digest(inputs.resources.executable);
    auto& config = inputs.config;
    const auto described = config;
    const QEMUStaleInstance stale(context_.runtime, context_.processes);
    co_await stale.clear(directory);
    auto paths = makePaths(inputs, directory);
    co_await prepareNVRAM(inputs.resources, inputs.bundle);
    if (inputs.hasInstaller()) paths.bootScriptDirectory = directory.writeBootScript();
    co_await sharedFolders_.prepare(inputs.id, config, inputs.bundle, inputs.attachments.sharedFolders,
                                    directory);
    paths.sshHostPort = co_await guestSSH_.prepare(inputs.id, config, inputs.bundle, directory);
    paths.systemDiskPath = directory.linkSystemDisk(inputs.bundle);
    addDiagnostics(paths, directory);
    auto built = QEMUCommandBuilder::buildArguments(config, inputs.bundle, inputs.attachments, paths);
    auto arguments = co_await adapted(std::move(built), inputs.resources);
    directory.writeGraphicsMarker(showsAccelerated(arguments));
    auto environment = qemuChildEnvironment(context_.environment, inputs.resources.environment, paths);
    auto devices = QEMUSuspendFingerprint::deviceDigest(arguments);
    QEMULaunch launch{std::move(arguments), std::move(paths), std::move(environment)};
    QEMULaunchPlan plan{config, described, std::move(launch), std::move(devices), std::move(engineDigest)};
    co_await decideOnSavedState(plan, inputs.bundle);
    co_return plan;
}

/// The state goes first: it is no good any more, whatever becomes of the description.
void QEMULaunchPreparation::dropSavedState(const QEMULaunchPlan& plan, const VMBundle& bundle) const {
    bundle.discardSavedState();
    if (plan.config == plan.described) return;
    try {
        plan.config.write(bundle.configFile());
    } catch (const std::exception& error) {
        logger_.error("The ports of %{public}s could not be noted: %{public}s", bundle.name(), error.what());
    }
}

void QEMULaunchPreparation::release(const UUID& id) {
    sharedFolders_.stop(id);
    guestSSH_.release(id);
}

bool QEMULaunchPreparation::isAccelerated(const QEMULaunchInputs& inputs) const {
    const bool isWanted = inputs.config.isGraphicsAccelerated() && inputs.resources.renderServer &&
                          !inputs.hasInstaller() &&
                          !inputs.config.windowsDisplayDriverMissing.value_or(false);
    if (!isWanted) return false;
    if (context_.sandboxGroupRequirement.kind != SandboxKind::unavailable) return true;
    logger_.info("沙盒里没有可用的 App Group(%{public}s),图形加速按普通显卡启动",
                 "com.apple.security.application-groups");
    return false;
}

std::optional<Path> QEMULaunchPreparation::requireTPM(const QEMULaunchInputs& inputs) const {
    const auto& platform = inputs.config.windowsPlatform;
    if (platform && !platform->hasTPM) return std::nullopt;
    if (!inputs.resources.swtpm)
        throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                           localized("This VM requires a virtual TPM, but the TPM component is missing."));
    return inputs.resources.swtpm;
}

/// Converted beside its place and moved there, so that an interrupted conversion leaves nothing half made.
Task<void> QEMULaunchPreparation::prepareNVRAM(QEMURuntimeResources resources, VMBundle bundle) const {
    const auto target = bundle.nvram();
    if (fs::exists(target)) co_return;
    auto convert = [resources = std::move(resources), target] {
        const auto temporary = target.parent_path() / ".nvram.qcow2.new";
        std::error_code ignored;
        fs::remove(temporary, ignored);
        QEMUImageTool::run(
            resources.imageTool,
            {"convert", "-f", "raw", "-O", "qcow2", resources.nvramTemplate.string(), temporary.string()},
            localized("Could not prepare the VM firmware storage."));
        fs::rename(temporary, target);
    };
    co_await context_.runtime.background.run(std::move(convert));
}

QEMURuntimePaths QEMULaunchPreparation::makePaths(const QEMULaunchInputs& inputs,
                                                  const QEMURuntimeDirectory& directory) const {
    const auto& resources = inputs.resources;
    const bool accelerated = isAccelerated(inputs);
    QEMURuntimePaths paths;
    paths.executable = resources.executable;
    paths.firmwareCode = resources.firmwareCode;
    paths.dataDirectory = resources.dataDirectory;
    paths.qmpSocket = directory.qmpSocket();
    if (!accelerated) paths.vncSocket = directory.vncSocket();
    paths.vdagentSocket = directory.agentSocket();
    paths.sharesDiskDirectory = directory.sharesDisk();
    paths.swtpmExecutable = requireTPM(inputs);
    if (paths.swtpmExecutable) paths.swtpmSocket = directory.tpmSocket();
    paths.serialLog = inputs.bundle.consoleLog();
    paths.guestDriversImage = resources.guestDrivers;
    if (!accelerated) return paths;
    paths.displayMonitorSocket = directory.displaySocket();
    paths.renderServer = resources.renderServer;
    if (context_.sandboxGroupRequirement.kind == SandboxKind::group)
        paths.sandboxGroupID = context_.sandboxGroupRequirement.name;
    return paths;
}

void QEMULaunchPreparation::addDiagnostics(QEMURuntimePaths& paths,
                                           const QEMURuntimeDirectory& directory) const {
    auto trace = context_.defaults.text(defaultsKey::qemuTrace);
    if (const auto found = context_.environment.find("DORVANE_QEMU_TRACE");
        !trace && found != context_.environment.end())
        trace = found->second;
    if (trace && !trace->empty()) {
        paths.traceEvents = traceEvents(*trace);
        paths.traceLog = directory.traceLog();
        logger_.info("QEMU trace 已开: %{public}s → %{public}s", *trace, paths.traceLog->string());
    }
    const auto monitor = context_.defaults.text(defaultsKey::qemuMonitorSocket);
    if (!monitor || monitor->empty()) return;
    paths.diagnosticMonitorSocket = *monitor;
    logger_.info("QEMU 诊断 QMP 已开: %{public}s", *monitor);
}

Task<std::vector<std::string>> QEMULaunchPreparation::adapted(std::vector<std::string> arguments,
                                                              QEMURuntimeResources resources) const {
    QEMUCapabilities capabilities;
    if (context_.adapter.needsCapabilities()) {
        try {
            capabilities =
                co_await context_.capabilities.capabilities(resources.executable, resources.environment);
        } catch (const POSIXError& error) {
            throw DorvaneError(DorvaneError::Case::vmStartupFailed, error.what());
        }
    }
    co_return context_.adapter.adapt(std::move(arguments), capabilities);
}

Task<void> QEMULaunchPreparation::decideOnSavedState(QEMULaunchPlan& plan, VMBundle bundle) const {
    if (!bundle.hasSavedState()) co_return;
    const auto engine = co_await plan.engineDigest.value();
    const QEMUSuspendFingerprint current{plan.devicesDigest, engine};
    switch (QEMUSuspendDecision::decide(bundle, plan.described, current)) {
        case QEMUSuspendDecision::Outcome::discard:
            logger_.info("丢弃不可用的挂起现场,冷启动 %{public}s", bundle.name());
            dropSavedState(plan, bundle);
            co_return;
        case QEMUSuspendDecision::Outcome::hardwareChanged:
            throw DorvaneError(DorvaneError::Case::suspendedStateHardwareChanged, bundle.name());
        case QEMUSuspendDecision::Outcome::resume:
            plan.launch.arguments.insert(plan.launch.arguments.end(), {"-incoming", "defer"});
            plan.launch.restoringFrom = bundle.savedState();
    }
}

}  // namespace dorvane
