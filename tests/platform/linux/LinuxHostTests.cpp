// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
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
    const std::pair<Environment, Path> cases[] = {
        {{{"XDG_RUNTIME_DIR", fits}}, Path(fits) / "dorvane"},
        {{{"XDG_RUNTIME_DIR", tooLong}}, Path("/tmp") / own},
        {{{"XDG_RUNTIME_DIR", isPublic}, {"TMPDIR", shortTemporary}}, Path(shortTemporary) / own},
        {{{"XDG_RUNTIME_DIR", tooLong}, {"TMPDIR", tooLong}}, Path("/tmp") / own},
        {{{"TMPDIR", "/does/not/exist"}}, Path("/tmp") / own},
    };
    for (auto [environment, expected] : cases) {
        environment["HOME"] = folder.path();
        const auto directories = linuxApplicationDirectories(environment);
        EXPECT_EQ(directories.temporary, expected);
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

TEST(LinuxProcesses, knowsAChildByItsShortenedNamePathAndParent) {
    const TemporaryDirectory folder;
    const LinuxProcesses processes;
    const auto program = folder / "qemu-system-aarch64";
    std::filesystem::copy_file("/bin/sleep", program);
    const auto child = ChildProcess::start({program, {"60"}});
    const auto children = processes.childPIDs(::getpid());
    ASSERT_TRUE(children);
    EXPECT_NE(std::find(children->begin(), children->end(), child->pid()), children->end());
    EXPECT_EQ(processes.childPIDs(child->pid()), std::vector<int>{});
    EXPECT_EQ(processes.name(child->pid()), "qemu-system-aar");
    EXPECT_EQ(processes.shortened("qemu-system-aarch64"), "qemu-system-aar");
    EXPECT_EQ(processes.executablePath(child->pid()), program);
    std::filesystem::remove(program);
    EXPECT_EQ(processes.executablePath(child->pid()), program);
    child->kill();
    child->waitBlocking();
    EXPECT_EQ(processes.name(child->pid()), std::nullopt);
    EXPECT_EQ(processes.childPIDs(child->pid()), std::nullopt);
    EXPECT_EQ(processes.executablePath(child->pid()), std::nullopt);
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

TEST(LinuxHostSystem, readsVersionAndUserAndLeavesTheLoopbackOut) {
    const LinuxHostSystem host;
    EXPECT_GE(host.version(), (OperatingSystemVersion{3, 0, 0}));
    EXPECT_FALSE(host.userName().empty());
    for (const auto& interface : host.networkInterfaces()) EXPECT_NE(interface.identifier, "lo");
}

}  // namespace
}  // namespace dorvane::test
