// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "platform/linux/LinuxApplicationDirectories.h"
#include "platform/linux/LinuxHostSystem.h"
#include "platform/linux/LinuxProcesses.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "runtime/ChildProcess.h"
#include "runtime/Sockets.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

TEST(LinuxApplicationDirectories, followsTheVariablesAndIgnoresRelativeOnes) {
    const TemporaryDirectory folder;
    const auto home = folder / "home", session = folder / "run";
    std::filesystem::create_directories(home / ".config");
    std::filesystem::create_directory(session);
    ::chmod(session.c_str(), 0700);
    const Environment plain{{"HOME", home}, {"XDG_RUNTIME_DIR", session}, {"XDG_CACHE_HOME", "relative"}};
    auto directories = linuxApplicationDirectories(plain);
    EXPECT_EQ(directories.applicationSupport, home / ".local/share/dorvane");
    EXPECT_EQ(directories.configuration, home / ".config/dorvane");
    EXPECT_EQ(directories.caches, home / ".cache/dorvane");
    EXPECT_EQ(directories.state, home / ".local/state/dorvane");
    EXPECT_EQ(directories.documents, home / "Documents");
    EXPECT_EQ(directories.runtime, session / "dorvane");
    EXPECT_EQ(linuxHomeTrash(plain), home / ".local/share/Trash");

    writeFileAtomically(home / ".config" / "user-dirs.dirs",
                        "# XDG_DOCUMENTS_DIR=\"/no\"\nXDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n");
    EXPECT_EQ(linuxApplicationDirectories(plain).documents, home / "Dokumente");
    auto chosen = plain;
    chosen["XDG_DATA_HOME"] = "/data";
    chosen["XDG_CONFIG_HOME"] = "/config";
    directories = linuxApplicationDirectories(chosen);
    EXPECT_EQ(directories.applicationSupport, "/data/dorvane");
    EXPECT_EQ(directories.configuration, "/config/dorvane");
    EXPECT_EQ(directories.documents, home / "Documents");
}

TEST(LinuxApplicationDirectories, socketsAlwaysFitAndLieWhereNobodyElseCanEnter) {
    const TemporaryDirectory folder;
    const auto makeFolder = [&](std::size_t length, mode_t mode) {
        auto path = (folder / "").string();
        path += std::string(length - path.size(), 'd');
        std::filesystem::create_directory(path);
        ::chmod(path.c_str(), mode);
        return path;
    };
    const auto own = "dorvane-" + std::to_string(::geteuid());
    const auto fits = makeFolder(75, 0700), tooLong = makeFolder(76, 0700), isPublic = makeFolder(40, 0755);
    const auto shortTemporary = makeFolder(42, 01777);
    const struct {
        std::string session, temporary;
        Path expected;
    } cases[] = {
        {fits, "", Path(fits) / "dorvane"},
        {tooLong, "", Path("/tmp") / own},
        {isPublic, shortTemporary, Path(shortTemporary) / own},
        {tooLong, tooLong, Path("/tmp") / own},
        {"", "/does/not/exist", Path("/tmp") / own},
    };
    for (const auto& each : cases) {
        Environment environment{{"HOME", folder.path()}};
        if (!each.session.empty()) environment["XDG_RUNTIME_DIR"] = each.session;
        if (!each.temporary.empty()) environment["TMPDIR"] = each.temporary;
        const auto directories = linuxApplicationDirectories(environment);
        EXPECT_EQ(directories.temporary, each.expected);
        const auto launch = QEMURuntimeDirectory::make(UUID::random(), directories.temporary);
        EXPECT_LE(launch.qmpSocket().native().size(), maximumSocketPathBytes);
        launch.remove();
    }
    // Somebody else was there first: another folder is taken.
    ::chmod((Path(shortTemporary) / own).c_str(), 0777);
    const auto taken = linuxApplicationDirectories({{"HOME", folder.path()}, {"TMPDIR", shortTemporary}});
    EXPECT_NE(taken.temporary, Path(shortTemporary) / own);
    EXPECT_EQ(std::filesystem::status(taken.temporary).permissions(), std::filesystem::perms(0700));
}

TEST(LinuxProcesses, knowsAChildByNamePathAndParent) {
    const LinuxProcesses processes;
    ProcessCommand command{"/bin/sleep", {"60"}};
    const auto child = ChildProcess::start(command);
    const auto children = processes.childPIDs(::getpid());
    ASSERT_TRUE(children);
    EXPECT_NE(std::find(children->begin(), children->end(), child->pid()), children->end());
    EXPECT_EQ(processes.childPIDs(child->pid()), std::vector<int>{});
    EXPECT_EQ(processes.name(child->pid()), "sleep");
    EXPECT_EQ(processes.executablePath(child->pid()), std::filesystem::canonical("/bin/sleep"));
    child->kill();
    child->waitBlocking();
    EXPECT_EQ(processes.name(child->pid()), std::nullopt);
    EXPECT_EQ(processes.childPIDs(child->pid()), std::nullopt);
    EXPECT_EQ(processes.executablePath(child->pid()), std::nullopt);
}

TEST(LinuxProcesses, shortensAProgramsNameAsTheKernelDoes) {
    const TemporaryDirectory folder;
    const LinuxProcesses processes;
    const auto program = folder / "qemu-system-aarch64";
    std::filesystem::copy_file("/bin/sleep", program);
    ProcessCommand command{program, {"60"}};
    const auto child = ChildProcess::start(command);
    EXPECT_EQ(processes.name(child->pid()), processes.shortened("qemu-system-aarch64"));
    std::filesystem::remove(program);
    EXPECT_EQ(processes.executablePath(child->pid()), program);
    child->kill();
    child->waitBlocking();
}

TEST(LinuxProcesses, tellsWhoIsAtTheOtherEndOfASocket) {
    const TemporaryDirectory folder;
    const auto listener = listenUnixSocket((folder / "s").string());
    const auto client = connectUnixSocket((folder / "s").string());
    EXPECT_EQ(LinuxProcesses().peerPID(client.get()), ::getpid());
    EXPECT_EQ(LinuxProcesses().peerPID(-1), std::nullopt);
}

TEST(LinuxHostSystem, makesAddressesThatNoMakerOwns) {
    const LinuxHostSystem host;
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const auto address = host.randomMACAddress();
        // The second digit says: for one receiver, not given out by a maker.
        ASSERT_TRUE(std::regex_match(address, std::regex("[0-9a-f][26ae](:[0-9a-f]{2}){5}"))) << address;
        seen.insert(address);
    }
    EXPECT_EQ(seen.size(), 200U);
    EXPECT_NE(host.newMacMachineIdentifier(), host.newMacMachineIdentifier());
}

TEST(LinuxHostSystem, readsThePlainFactsOfThisMachine) {
    const LinuxHostSystem host;
    EXPECT_GE(host.version(), (OperatingSystemVersion{3, 0, 0}));
    EXPECT_GE(host.coreCount(), 1);
    EXPECT_LE(host.coreCount(), ::sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_GT(host.memoryBytes(), 64U << 20);
    EXPECT_FALSE(host.userName().empty());
    for (const auto& interface : host.networkInterfaces()) EXPECT_NE(interface.identifier, "lo");
}

}  // namespace
}  // namespace dorvane::test
