// SPDX-License-Identifier: Apache-2.0
// The control connection, the capabilities, the adapted command line and the converter against the real QEMU.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <mutex>

#include "base/RandomBytes.h"
#include "platform/linux/LinuxQEMUHostAdapter.h"
#include "qemu/QEMUCapabilitiesCache.h"
#include "qemu/QEMUCommandBuilder.h"
#include "qemu/QEMUDiskImageTool.h"
#include "qemu/QEMUImageChainTool.h"
#include "qemu/QEMUImageConverter.h"
#include "qemu/QMPConnection.h"
#include "qemu_tools/RealQEMU.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using Error = QMPConnection::ConnectionError;
using testing::HasSubstr;

/// The names of those that have come on the connection's queue.
struct Events {
    std::mutex mutex;
    std::set<std::string> names;
};

class RealQEMU : public testing::Test {
  protected:
    const QEMURuntimeResources resources = test::realQEMU();
    test::TemporaryDirectory directory;
    test::RealTime time;
    test::LogCapture log;
    std::string socket = (directory / "q.sock").string();
    std::shared_ptr<QMPConnection> connection = std::make_shared<QMPConnection>(time.runtime());
    std::shared_ptr<Events> events = std::make_shared<Events>();

    void connect() {
        connection->observeEvents([seen = events](const QMPMessage& message) {
            const std::lock_guard lock(seen->mutex);
            seen->names.insert(message.event()->name);
        });
        time.run(connection->connect(socket, seconds(20)));
    }
    QMPObject execute(std::string command, JSON arguments = nullptr, int passing = -1) {
        return time.run(connection->execute(std::move(command), std::move(arguments), seconds(10), passing));
    }
    bool sees(const std::string& event) {
        return time.run(pollUntil(time.runtime().clock, seconds(10), milliseconds(10), [&] {
            const std::lock_guard lock(events->mutex);
            return events->names.contains(event);
        }));
    }
    QEMUCapabilities capabilities() {
        QEMUCapabilitiesCache cache(time.runtime());
        return time.run(cache.capabilities(resources.executable, resources.environment));
    }
};

TEST_F(RealQEMU, SpeaksTheProtocol) {
    test::RealQEMUChild child({"-machine", "none", "-nodefaults", "-display", "none", "-S", "-qmp",
                               "unix:" + socket + ",server=on,wait=off"});
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

    // Many in flight, each gets its answer.
    std::vector<OneShot<QMPObject>> outcomes(200);
    for (const auto& outcome : outcomes)
        spawn(time.runtime().main.executor(),
              deliver(connection->execute("query-status", nullptr, seconds(20)), outcome), "query")
            .detach();
    for (const auto& outcome : outcomes) EXPECT_TRUE(time.run(outcome.wait()).contains("status"));

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
    test::imageTool({"create", "-q", "-f", "qcow2", bundle.qcow2Disk().string(), "64M"});
    test::imageTool(
        {"convert", "-f", "raw", "-O", "qcow2", resources.nvramTemplate.string(), bundle.nvram().string()});
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
        test::RealQEMUChild child(vector);
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

TEST_F(RealQEMU, ConvertsWithProgressOrTellsWhyNotAndResizes) {
    constexpr std::uint64_t mebibyte = 1 << 20;
    const auto raw = directory / "in.raw", disk = directory / "out.qcow2", flat = directory / "flat.raw";
    std::vector<double> progress;
    const auto convert = [&] {
        time.run(QEMUImageConverter::convertToQcow2(time.runtime(), resources.imageTool, raw, "raw", disk,
                                                    [&](double value) { progress.push_back(value); }));
    };
    const auto error = test::errorOf(convert);
    EXPECT_EQ(error.which(), DorvaneError::Case::vmImportFailed);
    EXPECT_THAT(error.text(), HasSubstr("No such file or directory"));

    writeFileAtomically(raw, randomBytes(4 * mebibyte));
    truncateFile(raw, 64 * mebibyte);
    progress.clear();
    convert();
    const QEMUImageChainTool tool(resources.imageTool);
    EXPECT_EQ(tool.virtualSize(disk), 64 * mebibyte);
    test::imageTool({"convert", "-O", "raw", disk.string(), flat.string()});
    EXPECT_TRUE(readFile(flat, 64 * mebibyte) == readFile(raw, 64 * mebibyte));
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 1.0);

    tool.resize(disk, 80 * mebibyte);
    EXPECT_EQ(tool.virtualSize(disk), 80 * mebibyte);
    QEMUDiskImageTool(resources.imageTool).resizeImage(disk, 96 * mebibyte);
    EXPECT_EQ(tool.virtualSize(disk), 96 * mebibyte);
}

}  // namespace
}  // namespace dorvane
