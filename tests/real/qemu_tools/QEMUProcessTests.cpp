// SPDX-License-Identifier: Apache-2.0
// The control connection, the capabilities and the adapted command line against the real QEMU.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <mutex>

#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxQEMUHostAdapter.h"
#include "qemu/QEMUCommandBuilder.h"
#include "qemu/QEMUImageTool.h"
#include "qemu/QMPConnection.h"
#include "qemu/UnixSocketPeer.h"
#include "qemu_tools/RealQEMU.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using Error = QMPConnection::ConnectionError;
using testing::HasSubstr;

/// Events arrive on the connection's queue.
class EventLog {
  public:
    void add(const QMPMessage& message) {
        const std::lock_guard lock(mutex_);
        names_.push_back(message.event()->name);
    }
    bool has(const std::string& name) const {
        const std::lock_guard lock(mutex_);
        return std::find(names_.begin(), names_.end(), name) != names_.end();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> names_;
};

class RealQEMU : public testing::Test {
  protected:
    const QEMURuntimeResources resources = test::realQEMU();
    test::TemporaryDirectory directory;
    test::RealTime time;
    test::LogCapture log;
    std::string socket = (directory / "q.sock").string();
    std::shared_ptr<QMPConnection> connection = std::make_shared<QMPConnection>(time.runtime());
    std::shared_ptr<EventLog> events = std::make_shared<EventLog>();

    void connect() {
        connection->observeEvents([log = events](const QMPMessage& message) { log->add(message); });
        time.run(connection->connect(socket, seconds(20)));
    }
    QMPObject execute(std::string command, JSON arguments = nullptr, int passing = -1) {
        return time.run(connection->execute(std::move(command), std::move(arguments), seconds(10), passing));
    }
    bool sees(const std::string& event) {
        return time.run(pollUntil(time.runtime().clock, seconds(10), milliseconds(10),
                                  [&] { return events->has(event); }));
    }
    std::vector<std::string> bareMachine() {
        return {"-machine", "none", "-nodefaults", "-display",
                "none",     "-S",   "-qmp",        "unix:" + socket + ",server=on,wait=off"};
    }
    QEMUCapabilities capabilities() {
        QEMUCapabilitiesCache cache(time.runtime());
        return time.run(cache.capabilities(resources.executable, resources.environment));
    }
};

TEST_F(RealQEMU, SpeaksTheProtocol) {
    test::RealQEMUChild child(resources, bareMachine());
    connect();
    const auto status = execute("query-status");
    ASSERT_NE(findMember(status, "running"), nullptr);
    EXPECT_EQ(findMember(status, "running")->boolean(), false);
    const auto commands = execute("query-commands");
    ASSERT_NE(findMember(commands, "_items"), nullptr);
    EXPECT_GT(findMember(commands, "_items")->array()->size(), 100U);

    try {
        execute("no-such-command");
        FAIL() << "was accepted";
    } catch (const Error& error) {
        EXPECT_EQ(error.which(), Error::Case::commandFailed);
        EXPECT_STREQ(error.what(), "The command no-such-command has not been found");
    }

    const FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(execute("getfd", {{"fdname", "passed"}}, null.get()), QMPObject{});
    EXPECT_EQ(execute("closefd", {{"fdname", "passed"}}), QMPObject{});
    EXPECT_THROW(execute("getfd", {{"fdname", "nothing"}}), Error);

    execute("cont");
    EXPECT_TRUE(sees("RESUME"));
    execute("stop");
    EXPECT_TRUE(sees("STOP"));
    execute("quit");
    EXPECT_TRUE(sees("SHUTDOWN"));
    EXPECT_TRUE(sees(QMPMessage::disconnectedEventName));
    EXPECT_TRUE(time.run(child.process().wait()).isSuccess());
    EXPECT_THROW(execute("query-status"), Error);
}

TEST_F(RealQEMU, ManyCommandsInFlightEachGetTheirAnswer) {
    const test::RealQEMUChild child(resources, bareMachine());
    connect();
    std::vector<OneShot<QMPObject>> outcomes(200);
    for (const auto& outcome : outcomes)
        spawn(time.runtime().main.executor(),
              deliver(connection->execute("query-status", nullptr, seconds(20)), outcome), "query")
            .detach();
    for (const auto& outcome : outcomes) EXPECT_TRUE(time.run(outcome.wait()).contains("status"));
}

TEST_F(RealQEMU, AChildThatRefusesItsOptionsEndsTheWaitAtOnce) {
    test::RealQEMUChild child(resources, {"-machine", "no-such-machine"});
    const auto isAlive = [&child] { return child.process().isRunning(); };
    try {
        time.run(connection->connect(socket, seconds(60), isAlive));
        FAIL() << "connected";
    } catch (const Error& error) {
        EXPECT_EQ(error.which(), Error::Case::peerExited);
    }
}

TEST_F(RealQEMU, ALeftoverIsFoundByItsSocketAndStopped) {
    test::RealQEMUChild child(resources, bareMachine());
    connect();
    const LinuxProcesses processes;
    const UnixSocketPeer peer(processes, time.runtime().clock);
    EXPECT_EQ(peer.probe(socket), UnixSocketPeer::Probe::listening(child.process().pid()));
    EXPECT_FALSE(time.run(peer.terminate(child.process().pid(), "swtpm", seconds(1))));
    EXPECT_TRUE(child.process().isRunning());
    EXPECT_TRUE(time.run(peer.terminate(child.process().pid(), "qemu-system-aarch64", seconds(5))));
    EXPECT_EQ(peer.probe(socket), UnixSocketPeer::Probe::absent());
}

TEST_F(RealQEMU, TellsItsCapabilities) {
    const auto found = capabilities();
    EXPECT_FALSE(found.version.empty());
    ASSERT_FALSE(found.machineTypes.empty());
    EXPECT_TRUE(found.accelerators.contains("tcg"));
    EXPECT_TRUE(found.hasDevice("nvme"));
    EXPECT_TRUE(found.displays.contains("dbus"));
    for (const auto& device : QEMUCapabilities::inspectedDevices())
        EXPECT_TRUE(found.deviceProperties.contains(device)) << device;
}

/// Whatever the builder yields, the adapted vector must start here, with and without accelerated graphics.
TEST_F(RealQEMU, AcceptsTheAdaptedVector) {
    const VMBundle bundle(directory / "Win, 11");
    std::filesystem::create_directories(bundle.directoryURL);
    std::filesystem::create_directories(directory / "sh");
    QEMUImageTool::run(resources.imageTool,
                       {"create", "-q", "-f", "qcow2", bundle.qcow2Disk().string(), "64M"}, "disk");
    QEMUImageTool::run(
        resources.imageTool,
        {"convert", "-f", "raw", "-O", "qcow2", resources.nvramTemplate.string(), bundle.nvram().string()},
        "nvram");
    for (const char* name : {"image.iso", "stick.img"}) writeFileAtomically(directory / name, Bytes(1 << 20));
    DorvaneVMConfig config;
    config.cpuCount = 2;
    config.memoryBytes = 512 << 20;
    config.macAddress = "52:54:00:12:34:56";
    config.display = {1280, 800, 72};
    config.windowsPlatform = WindowsPlatformIdentity{"virt-11.1", false, true};
    QEMURuntimePaths paths;
    paths.executable = resources.executable;
    paths.firmwareCode = resources.firmwareCode;
    paths.dataDirectory = resources.dataDirectory;
    paths.qmpSocket = socket;
    paths.vdagentSocket = directory / "a.sock";
    paths.sharesDiskDirectory = directory / "sh";
    paths.serialLog = bundle.consoleLog();
    VMAttachments attachments;
    attachments.mountedImages = {(directory / "image.iso").string()};
    attachments.usbStorageDevices = {(directory / "stick.img").string()};
    const auto known = capabilities();
    const LinuxQEMUHostAdapter adapter(LinuxQEMUHostFacts::probe(currentEnvironment()));
    for (const bool isAccelerated : {false, true}) {
        SCOPED_TRACE(isAccelerated ? "accelerated" : "basic");
        paths.displayMonitorSocket = isAccelerated ? std::optional<Path>(directory / "d.sock") : std::nullopt;
        paths.vncSocket = isAccelerated ? std::nullopt : std::optional<Path>(directory / "v.sock");
        auto vector =
            adapter.adapt(QEMUCommandBuilder::buildArguments(config, bundle, attachments, paths), known);
        vector.emplace_back("-S");
        test::RealQEMUChild child(resources, vector);
        connection = std::make_shared<QMPConnection>(time.runtime());
        connect();
        EXPECT_EQ(findMember(execute("query-status"), "status")->string()->substr(0, 9), "prelaunch");
        const auto parameters = execute("query-migrate-parameters");
        EXPECT_EQ(findMember(parameters, "max-bandwidth")->integer(), std::int64_t{1} << 40);
        execute("quit");
        EXPECT_TRUE(time.run(child.process().wait()).isSuccess());
        std::filesystem::remove(socket);
    }
}

}  // namespace
}  // namespace dorvane
