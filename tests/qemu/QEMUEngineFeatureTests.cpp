// SPDX-License-Identifier: Apache-2.0
// What the engine adds to a launch: installer, SSH, folders, graphics, diagnostics.
#include "core/SettingsService.h"
#include "qemu/QEMUEngineScene.h"
#include "qemu/WindowsSharesPortAllocator.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using test::EngineMachine;
using Scene = test::QEMUEngineScene;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Listens nowhere; remembers what it was told.
class FakeFileServer : public GuestFileServing {
  public:
    explicit FakeFileServer(GuestFileServerConfiguration told, std::optional<std::string> error = {})
        : configuration(std::move(told)), failure(std::move(error)) {}
    Task<void> start() override {
        if (failure) throw DorvaneError(DorvaneError::Case::networkError, *failure);
        isRunning = true;
        co_return;
    }
    void stop() override { isRunning = false; }
    std::optional<int> boundPort() const override { return 47042; }

    GuestFileServerConfiguration configuration;
    std::optional<std::string> failure;
    bool isRunning = false;
};

TEST(QEMUEngine, AnInstallerGetsItsScriptAndItsKeyPresses) {
    Scene scene;
    auto vm = scene.machine();
    vm.attachments.installerImagePath = "/images/windows.iso";
    scene.launch(vm);
    const std::string block =
        "fs2:\\efi\\boot\\bootaa64.efi\nfs1:\\efi\\boot\\bootaa64.efi\n"
        "fs3:\\efi\\boot\\bootaa64.efi\nfs4:\\efi\\boot\\bootaa64.efi\n";
    EXPECT_EQ(readTextFile(scene.directory(vm) / "boot/startup.nsh"),
              "@echo -off\necho Dorvane: booting the Windows installer...\n" + block + block + block +
                  "echo Dorvane: no Windows installer found.\n");
    scene.host.driveUntil([&] { return scene.qemu.count(R"("down":false,"key":{"data":"spc")") >= 3; });
    scene.stop(vm);
}

TEST(QEMUEngine, TracesAndMonitorsOnRequest) {
    Scene scene(
        [](QEMUEngineContext& context) { context.environment["DORVANE_QEMU_TRACE"] = " nvme_* , ,usb_*"; });
    scene.defaults.set(defaultsKey::qemuMonitorSocket, "/tmp/monitor.sock");
    const auto vm = scene.machine();
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
    const auto portOf = [&](const EngineMachine& vm) { return scene.config(vm).windowsSSH->hostPort; };
    // The stand-in binds nothing, so only the reservation keeps the two apart.
    EXPECT_NE(portOf(first), portOf(second));
    EXPECT_THAT(scene.qemu.log(),
                HasSubstr("hostfwd=tcp:127.0.0.1:" + std::to_string(portOf(second)) + "-:22"));
    const auto key = readTextFile(scene.directory(first) / "sh/dorvane-ssh.pub");
    EXPECT_TRUE(key.starts_with("ssh-ed25519 "));
    EXPECT_TRUE(fs::exists(scene.directory(first) / "sh/Configure-Dorvane-SSH.cmd"));

    const auto port = static_cast<std::uint16_t>(portOf(first));
    EXPECT_FALSE(isLoopbackPortFree(port)) << "other programs keep away from it too";
    EXPECT_NO_THROW(listenLoopback(port)) << "as the emulator does";
    scene.stop(first);
    EXPECT_TRUE(isLoopbackPortFree(port));
}

TEST(QEMUEngine, StartsWithoutSSHWhenEveryPortIsTaken) {
    Scene scene;
    std::vector<FileDescriptor> taken;
    for (std::uint16_t port = 47100; port <= 47199; ++port)
        if (isLoopbackPortFree(port)) taken.push_back(listenLoopback(port));
    const auto vm =
        scene.machine("Machine", [](DorvaneVMConfig& config) { config.windowsSSH->enabled = true; });
    scene.launch(vm);
    EXPECT_THAT(scene.qemu.log(), Not(HasSubstr("hostfwd")));
    EXPECT_TRUE(scene.log.contains("SSH 转发端口全被占,这次不开 SSH"));
}

TEST(QEMUEngine, SaysThatThisBuildHasNoFileServer) {
    Scene scene;
    auto vm = scene.machine();
    vm.attachments.sharedFolders = {{.localPath = "/tmp", .mountPoint = "Work"}};
    scene.launch(vm);
    const auto status = scene.fileServers.status(vm.id);
    ASSERT_TRUE(status);
    EXPECT_EQ(std::get<GuestFileServerStatus::Failed>(status->kind).message,
              "This build cannot share folders with Windows guests yet.");
    const auto settings = scene.config(vm).windowsShares;
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
            return server = std::make_shared<FakeFileServer>(std::move(configuration), failure);
        };
    });
    auto vm = scene.machine("Machine", [](DorvaneVMConfig& config) {
        config.windowsShares = WindowsSharesConfig{true, 47007, "secret"};
    });
    const auto folder = scene.work.path().string();
    vm.attachments.sharedFolders = {{.localPath = folder, .mountPoint = " Work ", .readOnly = true},
                                    {.localPath = folder, .mountPoint = "wORK"},
                                    {.localPath = folder, .mountPoint = "AUX.txt"},
                                    {.localPath = folder + "/../nul", .mountPoint = ""},
                                    {.localPath = folder + "/ Photos //", .mountPoint = ""}};
    fs::create_directory(folder + "/ Photos ");
    scene.launch(vm);
    EXPECT_THAT(server->configuration.shares,
                ElementsAre(GuestFileShare{"Work", fs::canonical(folder), true},
                            GuestFileShare{"Shared", fs::canonical(folder).parent_path() / "nul", false},
                            GuestFileShare{"Photos", fs::canonical(folder) / " Photos ", false}));
    EXPECT_EQ(server->configuration.portCandidates.front(), 47007);
    const GuestFileServerStatus::Running running{
        47042, "http://10.0.2.2:47042/secret/", {"Work", "Shared", "Photos"}, 47007, {"wORK", "AUX.txt"}};
    EXPECT_EQ(scene.fileServers.status(vm.id), GuestFileServerStatus{running});
    EXPECT_EQ(scene.config(vm).windowsShares->hostPort, 47042);
    EXPECT_TRUE(fs::exists(scene.directory(vm) / "sh/Connect-Dorvane-Shares.cmd"));
    scene.stop(vm);
    EXPECT_FALSE(server->isRunning);

    failure = "no port";
    scene.launch(vm);
    EXPECT_TRUE(std::holds_alternative<GuestFileServerStatus::Failed>(scene.fileServers.status(vm.id)->kind));
    EXPECT_EQ(scene.engine->status(vm.id), VMStatus::running);
}

TEST(QEMUEngine, ASuspendedStateIsUsedOnceAndAMovedPortDoesNotCostIt) {
    Scene scene([](QEMUEngineContext& context) {
        context.makeFileServer = [](GuestFileServerConfiguration configuration) {
            return std::make_shared<FakeFileServer>(std::move(configuration));
        };
    });
    auto vm = scene.machine();
    vm.attachments.sharedFolders = {{.localPath = scene.work.path().string(), .mountPoint = "Work"}};
    scene.suspend(vm);
    // Saved when both had other ports.
    auto config = scene.config(vm);
    config.windowsSSH = WindowsSSHConfig{true, 1};
    config.windowsShares->hostPort = 47007;
    config.write(vm.bundle.configFile());
    writeFileAtomically(vm.bundle.savedStateHash(), configHash(config));

    scene.qemu.script("qemu-system-aarch64", {"refuse=cont"});
    const auto error = scene.failedLaunch(vm);
    EXPECT_EQ(error.which(), DorvaneError::Case::suspendedStateRestoreFailed);
    EXPECT_EQ(error.text(), "Machine");
    EXPECT_TRUE(vm.bundle.hasSavedState()) << "the failure says nothing about it";
    EXPECT_EQ(scene.config(vm), config) << "the state still belongs to it";
    scene.qemu.script("qemu-system-aarch64", {});
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-incoming defer\n"), 2);
    EXPECT_FALSE(vm.bundle.hasSavedState());
    const auto after = scene.config(vm);
    EXPECT_TRUE(windowsSSHPorts.contains(after.windowsSSH->hostPort));
    EXPECT_EQ(after.windowsShares->hostPort, 47042);

    // With a state that is of no use they are written down as well.
    scene.stop(vm);
    writeFileAtomically(vm.bundle.savedState(), "of unknown origin");
    config.write(vm.bundle.configFile());
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-incoming defer\n"), 2) << "without its digests it is discarded";
    EXPECT_TRUE(scene.log.contains("丢弃不可用的挂起现场,冷启动 Machine"));
    EXPECT_FALSE(vm.bundle.hasSavedState());
    EXPECT_EQ(scene.config(vm).windowsShares->hostPort, 47042);
}

TEST(QEMUEngine, AcceleratesOnlyWhereItCan) {
    const auto accelerated = [](DorvaneVMConfig& config) {
        config.windowsGraphics = WindowsGraphicsMode::accelerated;
    };
    {
        Scene scene;
        scene.qemu.add("virgl_render_server");
        const auto vm = scene.machine("Machine", accelerated);
        scene.launch(vm);
        EXPECT_TRUE(
            readTextFile(scene.directory(vm) / "sh/Dorvane-Graphics.txt").starts_with("accelerated\n"));
        EXPECT_THAT(scene.qemu.log(), Not(HasSubstr("-vnc")));
        std::ofstream(scene.directory(vm) / "d.sock") << "";
        const auto handle = scene.engine->displayHandle(vm.id);
        ASSERT_TRUE(handle && std::holds_alternative<GuestDisplaySource::DBus>(handle->source));
        EXPECT_EQ(handle->acceleratedDriverStatus(), AcceleratedDriverStatus::unknown);
        scene.stop(vm);
        EXPECT_FALSE(handle->acceleratedDriverStatus()) << "a handle may outlive its machine";
    }
    {
        Scene scene;
        scene.adapter.hasGL = false;
        scene.qemu.add("virgl_render_server");
        const auto vm = scene.machine("Machine", accelerated);
        scene.launch(vm);
        EXPECT_TRUE(readTextFile(scene.directory(vm) / "sh/Dorvane-Graphics.txt").starts_with("basic\n"));
        scene.stop(vm);
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
    writeFileAtomically(vm.bundle.savedState(), "memory");
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-device ramfb"), 2) << "a suspended machine keeps its devices";
    scene.stop(vm);
    scene.launch(vm);
    EXPECT_EQ(scene.qemu.count("-device ramfb"), 2) << "the full display from now on";
    EXPECT_EQ(scene.config(vm).windowsDisplayDriverMissing, false);
    EXPECT_FALSE(fs::exists(vm.bundle.guestToolsDetectedMarker()));
}

}  // namespace
}  // namespace dorvane
