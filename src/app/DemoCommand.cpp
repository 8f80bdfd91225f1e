// SPDX-License-Identifier: Apache-2.0
// The demo guest: a small Linux dressed as a guest of the QEMU engine, made by scripts/demo-guest.
#include "app/ServiceCommands.h"
#include "automation/MCPClientSetupSnippets.h"
#include "base/Localized.h"
#include "core/VMLookup.h"

namespace dorvane {
namespace {

constexpr auto demoName = "Dorvane Demo";
constexpr auto readyLine = "DORVANE DEMO READY";
constexpr auto bootTimeout = seconds(180);
constexpr auto bootPollInterval = milliseconds(250);
/// The prompt is drawn a moment after the ready line is written.
constexpr auto settleDelay = seconds(1);
constexpr int demoCPUCount = 2;
constexpr int demoMemoryMB = 1024;
constexpr int demoDiskGB = 64;

/// Puts the image into a new bundle: the record exists only when its disk is the demo's.
Task<VMRecordPointer> createDemo(AppState& app, const HostServices& host, Path image) {
    VMConfiguration configuration;
    configuration.cpuCount = demoCPUCount;
    configuration.memoryMB = demoMemoryMB;
    configuration.diskSizeGB = demoDiskGB;
    auto& service = app.makeSharedVMService();
    const auto vm = co_await service.createVM(demoName, VMOSType::windows, configuration);
    const auto disk = vm->bundle().qcow2Disk();
    const auto replaceDisk = [&files = host.files, image, disk] {
        const Path staged = disk.string() + ".new";
        std::filesystem::remove(staged);
        files.copyItem(image, staged);
        std::filesystem::rename(staged, disk);
    };
    std::exception_ptr failure;
    try {
        co_await host.runtime.background.run(replaceDisk);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return vm;
    co_await ignoreCancellation();
    co_await service.deleteVM(vm, true);
    std::rethrow_exception(failure);
}

bool isReady(const Path& consoleLog) {
    std::error_code error;
    if (!std::filesystem::exists(consoleLog, error)) return false;
    return readTextFile(consoleLog).find(readyLine) != std::string::npos;
}

Task<void> waitUntilReady(AppState& app, const Runtime& runtime, VMRecordPointer vm) {
    const auto log = vm->bundle().consoleLog();
    bool stopped = false;
    const auto ended = [&] {
        stopped = app.engine().status(vm->id).value_or(VMStatus::stopped) == VMStatus::stopped;
        return stopped || isReady(log);
    };
    const bool inTime = co_await pollUntil(runtime.clock, bootTimeout, bootPollInterval, ended);
    if (stopped)
        throw ControlError(ControlErrorCode::operationFailed,
                           localized("The demo guest stopped before it was ready."));
    if (!inTime)
        throw ControlError(ControlErrorCode::operationFailed,
                           localized("The demo guest did not get ready in time."));
    co_await runtime.clock.sleep(settleDelay);
}

std::optional<Path> imagePath(const HostServices& host, const JSON& params) {
    if (const auto given = JSONReader(params).optional<std::string>("image")) return Path(*given);
    std::error_code error;
    const auto cached = host.directories.caches / "demo-guest" / "demo.qcow2";
    return std::filesystem::exists(cached, error) ? std::optional(cached) : std::nullopt;
}

Task<JSON> demo(AppState& app, const HostServices& host, JSON params, ProgressReporter report) {
    auto& service = app.makeSharedVMService();
    co_await service.refreshVMList();
    auto vm = findVM(service.vms(), demoName);
    if (!vm) {
        const auto image = imagePath(host, params);
        if (!image)
            throw ControlError(
                ControlErrorCode::operationFailed,
                localized("The demo guest's disk is missing. Make it with scripts/demo-guest and give "
                          "its path with --image."));
        report({localized("Creating the demo guest"), 0.0});
        vm = co_await createDemo(app, host, *image);
    }
    co_await service.refreshVMState(vm);
    if (vm->isShutDownForEditing()) {
        // What an earlier run said must not count for this one.
        std::error_code ignored;
        std::filesystem::remove(vm->bundle().consoleLog(), ignored);
        report({localized("Starting the demo guest"), 0.1});
        co_await service.startVM(vm);
    }
    report({localized("Waiting for the demo guest to boot"), 0.2});
    co_await waitUntilReady(app, host.runtime, vm);
    report({localized("Taking a screenshot"), 0.9});
    const auto png = co_await service.captureHostFramebuffer(vm);
    const auto file = requiredText(params, "screenshot");
    if (png) writeFileAtomically(file, *png);
    auto& server = app.mcpServerService();
    const auto url = server.endpointURLString();
    JSON result{{"name", vm->name}, {"id", vm->id.text()}, {"screenshot", png ? JSON(file) : JSON(nullptr)}};
    result["url"] = url;
    result["config"] = MCPClientSetupSnippets::jsonConfigSnippet(url);
    co_return result;
}

}  // namespace

void addDemoCommand(ControlMethods& methods, AppState& app, const HostServices& host) {
    methods["demo"].perform = [&app, &host](JSON params, ProgressReporter report) {
        return demo(app, host, std::move(params), std::move(report));
    };
}

}  // namespace dorvane
