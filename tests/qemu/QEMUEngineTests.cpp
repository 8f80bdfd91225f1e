// SPDX-License-Identifier: Apache-2.0
// The engine from launch request to clean-up, with the scripted stand-in for every program, on virtual time.
#include "qemu/QEMUEngine.h"

#include <gmock/gmock.h>

#include "core/ConfigHash.h"
#include "core/DorvaneError.h"
#include "core/SettingsService.h"
#include "qemu/WindowsSharesPortAllocator.h"
#include "runtime/Sockets.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeProcesses.h"
#include "support/FakeQEMUInstallation.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"
#include "support/TimePump.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;
using Case = DorvaneError::Case;

/// Listens nowhere; remembers what it was told.
class FakeFileServer : public GuestFileServing {
  public:
    explicit FakeFileServer(GuestFileServerConfiguration told) : configuration(std::move(told)) {}
    Task<void> start() override {
        if (failure) throw DorvaneError(Case::networkError, *failure);
        isRunning = true;
        co_return;
    }
    void stop() override { isRunning = false; }
    std::optional<int> boundPort() const override { return port; }

    GuestFileServerConfiguration configuration;
    std::optional<std::string> failure;
    std::optional<int> port = 47042;
    bool isRunning = false;
};

struct Machine {
    UUID id = UUID::random();
    VMBundle bundle;
    VMAttachments attachments = {};
};

struct Scene {
    explicit Scene(std::function<void(QEMUEngineContext&)> change = {}) {
        QEMUEngineContext context{.runtime = host.runtime(), .processes = processes, .defaults = defaults,
                                  .adapter = adapter, .capabilities = capabilities, .keyStore = keyStore,
                                  .guestTools = guestTools, .fileServers = fileServers,
                                  .resourceLocator = [this] { return locate(); }, .temporaryDirectory = work.path()};
        if (change) change(context);
        engine.emplace(std::move(context));
    }
    ~Scene() {
        host.run(engine->shutdownAll(seconds(1)));
        EXPECT_TRUE(fs::is_empty(work / "dvn")) << "a runtime directory was left";
        EXPECT_TRUE(qemu.survivors().empty());
    }

    std::optional<QEMURuntimeResources> locate() const {
        return QEMURuntimeResources::locate({QEMURuntimeResources::packaged(qemu.root())}, {});
    }
    Machine machine(const std::string& name, const std::function<void(DorvaneVMConfig&)>& change = {}) const {
        Machine made{.bundle = VMBundle(work / name)};
        fs::create_directory(made.bundle.directoryURL);
        DorvaneVMConfig config;
        config.cpuCount = 2;
        config.memoryBytes = 1ULL << 30;
        config.macAddress = "02:00:00:00:00:01";
        config.display = {1280, 800, 96};
        config.windowsPlatform = WindowsPlatformIdentity{"virt", false, true};
        config.windowsSSH = WindowsSSHConfig{false, 0};
        if (change) change(config);
        config.write(made.bundle.configFile());
        std::ofstream(made.bundle.qcow2Disk()) << "disk";
        return made;
    }
    void launch(const Machine& vm) { host.run(engine->launch(vm.id, vm.bundle, vm.attachments)); }
    DorvaneError failedLaunch(const Machine& vm) {
        try {
            launch(vm);
        } catch (const DorvaneError& error) {
            return error;
        }
        ADD_FAILURE() << "the launch succeeded";
        return DorvaneError(Case::unknown);
    }
    void stop(const Machine& vm, bool force = true) {
        host.run(engine->stop(vm.id, force));
        waitUntilGone(vm);
    }
    void waitUntilGone(const Machine& vm) {
        host.driveUntil([&] { return !engine->status(vm.id); });
        EXPECT_FALSE(fs::exists(directory(vm)));
    }
    Path directory(const Machine& vm) const { return work / "dvn" / vm.id.shortText(); }
    /// A suspended state as the suspending service leaves it, over what the engine itself wrote.
    void suspend(const Machine& vm) {
        launch(vm);
        host.run(engine->pause(vm.id));
        host.driveUntil([&] { return engine->status(vm.id) == VMStatus::paused; });
        host.run(engine->saveState(vm.id, vm.bundle.savedState()));
        writeFileAtomically(vm.bundle.savedState(), "memory");
        writeFileAtomically(vm.bundle.savedStateHash(), configHash(DorvaneVMConfig::read(vm.bundle.configFile())));
        stop(vm);
    }
    int launches() const { return qemu.count("qemu-system-aarch64 pid="); }

    test::TestRuntime host{test::TestRuntime::TimeMode::manual};
    test::TimePump pump{host.clock()};
    test::LogCapture log;
    test::FakeQEMUInstallation qemu;
    test::TemporaryDirectory work;
    test::FakeProcesses processes;
    test::FakeDefaultsStore defaults;
    IdentityHostAdapter adapter;
    QEMUCapabilitiesCache capabilities{host.runtime()};
    GuestKeyStore keyStore{host.runtime(), work / "support"};
    GuestToolsRegistry guestTools;
    GuestFileServerRegistry fileServers;
    std::optional<QEMUEngine> engine;
};

TEST(QEMUEngine, RunsAMachineFromLaunchToCleanUp) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_THAT(scene.engine->runningVMIDs(), ElementsAre(vm.id));
    EXPECT_EQ(scene.engine->macAddress(vm.id), "02:00:00:00:00:01");
    const auto directory = scene.directory(vm);
    EXPECT_EQ(fs::read_symlink(directory / "sys-0.qcow2"), vm.bundle.qcow2Disk());
    EXPECT_TRUE(readTextFile(directory / "sh/Dorvane-Graphics.txt").starts_with("basic\n"));
    EXPECT_FALSE(fs::exists(directory / "boot"));
    const auto handle = scene.engine->displayHandle(vm.id);
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->source, (GuestDisplaySource::Kind(GuestDisplaySource::VNC{
                                  (directory / "v.sock").string(), (directory / "a.sock").string()})));
    EXPECT_TRUE(handle->sharesClipboard && handle->acceptsFileDrops && !handle->acceleratedDriverStatus);
    const auto agent = [&] { scene.host.run(scene.engine->connectToGuestAgent(vm.id)); };
    EXPECT_THROW(agent(), DorvaneError);
    EXPECT_EQ(scene.failedLaunch(vm).which(), Case::vmAlreadyRunning);
    scene.stop(vm, false);
    EXPECT_EQ(scene.engine->stopReason(vm.id), VMStopReason::requested());
    EXPECT_FALSE(scene.engine->displayHandle(vm.id) || scene.engine->hasRunningVMs());
    scene.host.run(scene.engine->stop(vm.id, false));
    EXPECT_THROW(scene.host.run(scene.engine->pause(vm.id)), DorvaneError);
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("convert -f raw -O qcow2"), 1) << "the firmware's storage is made once";
}

TEST(QEMUEngine, ASecondLaunchDoesNotDisturbTheFirst) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    auto first = spawn(scene.host.runtime().main.executor(), scene.engine->launch(vm.id, vm.bundle, {}), "first");
    scene.host.settle();
    EXPECT_EQ(scene.failedLaunch(vm).which(), Case::vmAlreadyRunning);
    scene.host.driveUntil([&] { return first.isFinished(); });
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_EQ(scene.launches(), 1);
}

TEST(QEMUEngine, AFailureOnTheWayLeavesNothing) {
    {
        Scene scene([](QEMUEngineContext& context) { context.resourceLocator = [] { return std::nullopt; }; });
        fs::create_directory(scene.work / "dvn");
        EXPECT_EQ(scene.failedLaunch(scene.machine("Machine")).text(),
                  "The Windows virtualization components are missing from this build.");
    }
    Scene scene;
    fs::remove(scene.qemu.helpers() / "swtpm");
    const auto wantsTPM = [](DorvaneVMConfig& config) { config.windowsPlatform->hasTPM = true; };
    EXPECT_EQ(scene.failedLaunch(scene.machine("TPM", wantsTPM)).text(),
              "This VM requires a virtual TPM, but the TPM component is missing.");
    scene.qemu.script("qemu-img", {"fails"});
    const auto vm = scene.machine("Machine");
    EXPECT_EQ(scene.failedLaunch(vm).text(), "Could not prepare the VM firmware storage.");
    EXPECT_FALSE(fs::exists(vm.bundle.nvram())) << "half a file would pass for a whole one";
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    scene.qemu.script("qemu-img", {});
    scene.qemu.script("qemu-system-aarch64", {"exit=1", "stderr=qemu-system-aarch64: Failed to get \"write\" lock"});
    EXPECT_THAT(scene.failedLaunch(vm).text(), HasSubstr("\nFailed to get \"write\" lock"));
    EXPECT_FALSE(scene.engine->status(vm.id));
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    fs::remove(vm.bundle.configFile());
    EXPECT_THROW(scene.launch(vm), FileError);
}

TEST(QEMUEngine, AStopBeforeThereIsAChildIsHeard) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    auto starting = spawn(scene.host.runtime().main.executor(), [](Scene& s, Machine m) -> Task<void> {
        try {
            co_await s.engine->launch(m.id, m.bundle, m.attachments);
            ADD_FAILURE() << "the launch succeeded";
        } catch (const DorvaneError& error) {
            EXPECT_EQ(error.text(), "The VM was stopped while it was starting.");
        }
    }(scene, vm), "starting");
    auto stopping = spawn(scene.host.runtime().main.executor(), scene.engine->stop(vm.id, false), "stopping");
    scene.host.driveUntil([&] { return starting.isFinished() && stopping.isFinished(); });
    EXPECT_EQ(scene.launches(), 0);
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running) << "the next launch isn't meant";
}

TEST(QEMUEngine, AnInstallerGetsItsScriptAndItsKeyPresses) {
    Scene scene;
    auto vm = scene.machine("Machine");
    vm.attachments.installerImagePath = "/images/windows.iso";
    scene.launch(vm);
    EXPECT_TRUE(fs::exists(scene.directory(vm) / "boot/startup.nsh"));
    scene.host.driveUntil([&] { return scene.qemu.count(R"("down":false,"key":{"data":"spc")") >= 3; });
    scene.stop(vm);
}

TEST(QEMUEngine, ASuspendedStateIsUsedOnce) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    scene.suspend(vm);
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-incoming defer\n"), 1);
    EXPECT_FALSE(vm.bundle.hasSavedState());
    scene.stop(vm);
    writeFileAtomically(vm.bundle.savedState(), "of unknown origin");
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-incoming defer\n"), 1) << "without its digests it is discarded";
    EXPECT_FALSE(vm.bundle.hasSavedState());
    EXPECT_TRUE(scene.log.contains("丢弃不可用的挂起现场,冷启动 Machine"));
}

TEST(QEMUEngine, ChangedHardwareKeepsTheSuspendedState) {
    Scene scene;
    auto vm = scene.machine("Machine");
    scene.suspend(vm);
    vm.attachments.usbStorageDevices = {"/stick.img"};
    EXPECT_EQ(scene.failedLaunch(vm), DorvaneError(Case::suspendedStateHardwareChanged, "Machine"));
    EXPECT_TRUE(vm.bundle.hasSavedState());
    EXPECT_TRUE(fs::is_empty(scene.work / "dvn"));
    vm.attachments.usbStorageDevices.clear();
    scene.launch(vm);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
}

TEST(QEMUEngine, ARejectedStateBootsColdInTheSameLaunch) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    scene.suspend(vm);
    const int before = scene.launches();
    scene.qemu.script("qemu-system-aarch64", {"migrate=fails"});
    scene.launch(vm);
    EXPECT_EQ(scene.launches(), before + 2);
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
    EXPECT_FALSE(vm.bundle.hasSavedState());
}

TEST(QEMUEngine, AFailureThatSaysNothingAboutTheStateKeepsIt) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    scene.suspend(vm);
    scene.qemu.script("qemu-system-aarch64", {"refuse=cont"});
    const auto error = scene.failedLaunch(vm);
    EXPECT_EQ(error.which(), Case::suspendedStateRestoreFailed);
    EXPECT_EQ(error.text(), "Machine");
    EXPECT_TRUE(vm.bundle.hasSavedState());
}

TEST(QEMUEngine, TracesAndMonitorsOnRequest) {
    Scene scene([](QEMUEngineContext& context) { context.environment["DORVANE_QEMU_TRACE"] = " nvme_* , ,usb_*"; });
    scene.defaults.set(defaultsKey::qemuMonitorSocket, "/tmp/monitor.sock");
    const auto vm = scene.machine("Machine");
    scene.launch(vm);
    const auto log = scene.qemu.log();
    EXPECT_THAT(log, HasSubstr("-trace enable=nvme_* -trace enable=usb_* -trace file=" +
                               (scene.directory(vm) / "trace.log").string()));
    EXPECT_THAT(log, HasSubstr("-qmp unix:/tmp/monitor.sock,server=on,wait=off"));
}

TEST(QEMUEngine, ForwardsSSHToAFreePortAndWritesItDown) {
    Scene scene;
    const auto wantsSSH = [](DorvaneVMConfig& config) { config.windowsSSH.reset(); };
    const auto first = scene.machine("First", wantsSSH), second = scene.machine("Second", wantsSSH);
    scene.launch(first);
    scene.launch(second);
    const auto portOf = [](const Machine& vm) {
        return DorvaneVMConfig::read(vm.bundle.configFile()).windowsSSH->hostPort;
    };
    // The stand-in binds nothing, so only the reservation keeps the two apart.
    EXPECT_NE(portOf(first), portOf(second));
    EXPECT_THAT(scene.qemu.log(), HasSubstr("hostfwd=tcp:127.0.0.1:" + std::to_string(portOf(second)) + "-:22"));
    const auto key = readTextFile(scene.directory(first) / "sh/dorvane-ssh.pub");
    EXPECT_TRUE(key.starts_with("ssh-ed25519 "));
    EXPECT_TRUE(fs::exists(scene.directory(first) / "sh/Configure-Dorvane-SSH.cmd"));
}

TEST(QEMUEngine, StartsWithoutSSHWhenEveryPortIsTaken) {
    Scene scene;
    std::vector<FileDescriptor> taken;
    for (std::uint16_t port = 47100; port <= 47199; ++port)
        if (isLoopbackPortFree(port)) taken.push_back(listenLoopback(port));
    const auto vm = scene.machine("Machine", [](DorvaneVMConfig& config) { config.windowsSSH->enabled = true; });
    scene.launch(vm);
    EXPECT_THAT(scene.qemu.log(), Not(HasSubstr("hostfwd")));
    EXPECT_TRUE(scene.log.contains("SSH 转发端口全被占,这次不开 SSH"));
}

TEST(QEMUEngine, SaysThatThisBuildHasNoFileServer) {
    Scene scene;
    auto vm = scene.machine("Machine");
    vm.attachments.sharedFolders = {{.localPath = "/tmp", .mountPoint = "Work"}};
    scene.launch(vm);
    const auto status = scene.fileServers.status(vm.id);
    ASSERT_TRUE(status);
    EXPECT_EQ(std::get<GuestFileServerStatus::Failed>(status->kind).message,
              "This build cannot share folders with Windows guests yet.");
    const auto settings = DorvaneVMConfig::read(vm.bundle.configFile()).windowsShares;
    ASSERT_TRUE(settings && settings->enabled);
    EXPECT_TRUE(windowsSharesPorts.contains(settings->hostPort));
    scene.stop(vm);
    EXPECT_FALSE(scene.fileServers.status(vm.id));
}

TEST(QEMUEngine, SharesFoldersThroughItsServer) {
    std::shared_ptr<FakeFileServer> server;
    std::optional<std::string> failure;
    Scene scene([&](QEMUEngineContext& context) {
        context.makeFileServer = [&](GuestFileServerConfiguration configuration) {
            server = std::make_shared<FakeFileServer>(std::move(configuration));
            server->failure = failure;
            return server;
        };
    });
    auto vm = scene.machine("Machine", [](DorvaneVMConfig& config) {
        config.windowsShares = WindowsSharesConfig{true, 47007, "secret"};
    });
    const auto folder = scene.work.path().string();
    vm.attachments.sharedFolders = {{.localPath = folder, .mountPoint = " Work ", .readOnly = true},
                                    {.localPath = folder, .mountPoint = "wORK"},
                                    {.localPath = folder, .mountPoint = "AUX.txt"},
                                    {.localPath = folder + "/../nul", .mountPoint = ""}};
    scene.launch(vm);
    EXPECT_THAT(server->configuration.shares,
                ElementsAre(GuestFileShare{"Work", fs::canonical(folder), true},
                            GuestFileShare{"Shared", fs::canonical(folder).parent_path() / "nul", false}));
    EXPECT_EQ(server->configuration.portCandidates.front(), 47007);
    const GuestFileServerStatus::Running running{47042, "http://10.0.2.2:47042/secret/", {"Work", "Shared"}, 47007,
                                                 {"wORK", "AUX.txt"}};
    EXPECT_EQ(scene.fileServers.status(vm.id), GuestFileServerStatus{running});
    EXPECT_EQ(DorvaneVMConfig::read(vm.bundle.configFile()).windowsShares->hostPort, 47042);
    EXPECT_TRUE(fs::exists(scene.directory(vm) / "sh/Connect-Dorvane-Shares.cmd"));
    scene.stop(vm);
    EXPECT_FALSE(server->isRunning);

    failure = "no port";
    scene.launch(vm);
    EXPECT_TRUE(std::holds_alternative<GuestFileServerStatus::Failed>(scene.fileServers.status(vm.id)->kind));
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
}

TEST(QEMUEngine, AcceleratesOnlyWhereItCan) {
    const auto accelerated = [](DorvaneVMConfig& config) { config.windowsGraphics = WindowsGraphicsMode::accelerated; };
    {
        Scene scene;
        scene.qemu.add("virgl_render_server");
        const auto vm = scene.machine("Machine", accelerated);
        scene.launch(vm);
        EXPECT_TRUE(readTextFile(scene.directory(vm) / "sh/Dorvane-Graphics.txt").starts_with("accelerated\n"));
        EXPECT_THAT(scene.qemu.log(), Not(HasSubstr("-vnc")));
        std::ofstream(scene.directory(vm) / "d.sock") << "";
        const auto handle = scene.engine->displayHandle(vm.id);
        ASSERT_TRUE(handle && std::holds_alternative<GuestDisplaySource::DBus>(handle->source));
        EXPECT_EQ(handle->acceleratedDriverStatus(), AcceleratedDriverStatus::unknown);
        scene.stop(vm);
        EXPECT_FALSE(handle->acceleratedDriverStatus()) << "a handle may outlive its machine";
    }
    Scene scene([](QEMUEngineContext& context) {
        context.sandboxGroupRequirement.kind = GraphicsSandboxGroup::Requirement::Kind::unavailable;
    });
    scene.qemu.add("virgl_render_server");
    const auto vm = scene.machine("Machine", accelerated);
    scene.launch(vm);
    EXPECT_TRUE(readTextFile(scene.directory(vm) / "sh/Dorvane-Graphics.txt").starts_with("basic\n"));
    EXPECT_TRUE(scene.log.contains("图形加速按普通显卡启动"));
}

TEST(QEMUEngine, ShutsEverythingDownAtOnce) {
    Scene scene;
    const auto first = scene.machine("First"), second = scene.machine("Second");
    scene.launch(first);
    scene.qemu.script("qemu-system-aarch64", {"stubborn"});
    scene.launch(second);
    scene.host.run(scene.engine->shutdownAll(seconds(1)));
    EXPECT_FALSE(scene.engine->hasRunningVMs());
    EXPECT_TRUE(scene.qemu.survivors().empty()) << "the kill timers have had their time";
    EXPECT_EQ(scene.engine->stopReason(first.id), VMStopReason::requested());
}

TEST(QEMUEngine, RemembersThatTheGuestToolsRun) {
    Scene scene;
    const auto lacksDriver = [](DorvaneVMConfig& config) { config.windowsDisplayDriverMissing = true; };
    const auto vm = scene.machine("Machine", lacksDriver);
    scene.guestTools.set(UUID::random(), {});
    scene.launch(vm);
    scene.guestTools.set(vm.id, {1});
    EXPECT_TRUE(fs::exists(vm.bundle.guestToolsDetectedMarker()));
    scene.stop(vm);
    EXPECT_EQ(scene.qemu.count("-device ramfb"), 1);
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-device ramfb"), 1) << "the full display from now on";
}

TEST(QEMUEngine, ClearsWhatAnEarlierSessionLeft) {
    Scene scene;
    const auto vm = scene.machine("Machine");
    fs::create_directories(scene.directory(vm));
    const auto socket = scene.directory(vm) / "q.sock";
    const auto stale = ChildProcess::start({.executable = scene.qemu.emulator(),
                                            .arguments = {"-qmp", "unix:" + socket.string() + ",server=on"}});
    scene.host.driveUntil([&] { return fs::exists(socket); });
    scene.launch(vm);
    EXPECT_FALSE(stale->isRunning());
    EXPECT_TRUE(scene.log.contains("发现上次会话遗留的 QEMU"));
    scene.stop(vm);

    // Somebody else who listens there is left alone, and the launch goes on.
    fs::create_directories(scene.directory(vm));
    const auto foreign = listenUnixSocket(socket.string());
    scene.processes.peer = 4711;
    scene.processes.table[4711].name = "bash";
    scene.launch(vm);
    EXPECT_TRUE(scene.log.contains("遗留的 QEMU(pid 4711)不响应 QMP,按 pid 停掉"));
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
}

}  // namespace
}  // namespace dorvane
