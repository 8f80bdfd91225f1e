// SPDX-License-Identifier: Apache-2.0
// What a Windows guest is given from outside: names, ports, scripts, and the tests of whether it can run.
#include <gmock/gmock.h>

#include "qemu/AcceleratedDriverProbe.h"
#include "qemu/GraphicsSandboxGroup.h"
#include "qemu/WindowsGuestAvailability.h"
#include "qemu/WindowsSSHGuestScript.h"
#include "qemu/WindowsShareName.h"
#include "qemu/WindowsSharesGuestScript.h"
#include "qemu/WindowsSharesPortAllocator.h"
#include "runtime/Sockets.h"
#include "support/FakeProcesses.h"

namespace dorvane {
namespace {

using testing::HasSubstr;
using NameError = WindowsShareName::ValidationError;

TEST(WindowsShareName, TakesWhatWindowsTakes) {
    std::string longest;
    for (int i = 0; i < 255; ++i) longest += "ü";
    const std::string taken[] = {"auxiliary",  "com10",   "com0",      "lpt",  "a.b",
                                 "Ünïcode 名", ".hidden", "com1x.txt", longest};
    for (const auto& good : taken)
        EXPECT_EQ(WindowsShareName::validate(good), WindowsShareName::Result(good)) << good;
    EXPECT_EQ(WindowsShareName::validate("  Work \t"), WindowsShareName::Result("Work"));
    const std::pair<std::string, NameError> refused[] = {
        {" \t", NameError::empty},
        {longest + "x", NameError::tooLong},
        {"a/b", NameError::forbiddenCharacter},
        {"a|b.", NameError::forbiddenCharacter},
        {"name.", NameError::trailingDotOrBlank},
        {"AUX.txt", NameError::reserved},
        {"nul", NameError::reserved},
        {"Com9", NameError::reserved},
        {"lpt1.tar.gz", NameError::reserved},
    };
    for (const auto& [name, error] : refused)
        EXPECT_EQ(WindowsShareName::validate(name), WindowsShareName::Result(error)) << name;
}

TEST(PortRange, PutsThePreferredPortFirstOnlyWhenItBelongs) {
    for (const auto& [preferred, front, back] : {std::tuple(47099, 47099, 47098), {47100, 47000, 47099}}) {
        const auto ports = windowsSharesPorts.candidates(preferred);
        EXPECT_EQ(ports.size(), 100U);
        EXPECT_EQ(ports.front(), front);
        EXPECT_EQ(ports.back(), back);
    }
}

TEST(WindowsSharesPortAllocator, PassesOverTakenPorts) {
    const auto taken = listenLoopback(0);
    const int port = boundPort(taken.get());
    EXPECT_EQ(WindowsSharesPortAllocator::pickFreePort({port, port}), port)
        << "nothing free: the lower bound";
    const int next = WindowsSharesPortAllocator::pickFreePort({port, port + 20});
    EXPECT_GT(next, port);
    const auto token = WindowsSharesPortAllocator::makeToken();
    EXPECT_THAT(token, testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_NE(token, WindowsSharesPortAllocator::makeToken());
}

/// Every line ends as Windows' command interpreter wants it, and every character is ASCII.
void expectBatchFile(const std::string& script) {
    for (std::size_t i = 0; i < script.size(); ++i) {
        ASSERT_LT(static_cast<unsigned char>(script[i]), 0x80);
        ASSERT_TRUE(script[i] != '\n' || (i > 0 && script[i - 1] == '\r')) << i;
    }
    EXPECT_TRUE(script.starts_with("@echo off\r\n"));
}

TEST(WindowsGuestScripts, MapTheFolders) {
    const auto script = WindowsSharesGuestScript::connectScript(47003, "secret");
    expectBatchFile(script);
    EXPECT_THAT(script, HasSubstr("net use %%L: \"\\\\10.0.2.2@47003\\secret\" /persistent:no"));
    EXPECT_THAT(script, HasSubstr("net use %%L: \"http://10.0.2.2:47003/secret/\" /persistent:no"));
    EXPECT_LT(script.find("/delete"), script.find("/persistent")) << "dead letters go first";
    EXPECT_THAT(script, HasSubstr("echo   http://10.0.2.2:47003/secret/\r\npause"));
    const auto text = WindowsSharesGuestScript::instructions(47003, "secret");
    EXPECT_THAT(text, HasSubstr("http://10.0.2.2:47003/secret/"));
    EXPECT_THAT(text, HasSubstr("\\\\10.0.2.2@47003\\secret"));
}

TEST(WindowsGuestScripts, InstallTheKey) {
    const auto script = WindowsSSHGuestScript::configureScript("ssh-ed25519 AAAA1 dorvane\n");
    expectBatchFile(script);
    EXPECT_THAT(script, HasSubstr("> \"%DVNKEYS%\" echo ssh-ed25519 AAAA1 dorvane\r\n"));
    const char* const inOrder[] = {
        "net session",      "sc query sshd",        "mkdir",
        "echo ssh-ed25519", "/inheritance:r",       "start= auto",
        "net start sshd",   "Checking the result:", "Dorvane can now run commands"};
    std::size_t at = 0;
    for (const auto* part : inOrder) {
        at = script.find(part, at);
        ASSERT_NE(at, std::string::npos) << part;
    }
}

TEST(WindowsGuestAvailability, ComparesVersionsPartByPart) {
    using namespace WindowsGuestAvailability;
    EXPECT_EQ(parseVersion("26"), (OperatingSystemVersion{26, 0, 0}));
    EXPECT_EQ(parseVersion("26.1.2"), (OperatingSystemVersion{26, 1, 2}));
    for (const auto* bad : {"", "26.", "26.x", "1.2.3.4", "-1", "26 "})
        EXPECT_FALSE(parseVersion(bad)) << bad;
    EXPECT_FALSE(systemRequirementProblem({26, 0, 1}, OperatingSystemVersion{26, 0, 0}));
    EXPECT_FALSE(systemRequirementProblem({1, 0, 0}, std::nullopt));
    const auto problem = systemRequirementProblem({25, 9, 9}, OperatingSystemVersion{26, 0, 0});
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->reason(),
              "Windows virtual machines need macOS 26.0 or later. This Mac is running macOS 25.9.9.");
}

TEST(GraphicsSandboxGroup, TakesTheFirstGroupThatIsShortEnough) {
    using Kind = GraphicsSandboxGroup::Requirement::Kind;
    const std::string at28(28, 'g'), at29(29, 'g');
    EXPECT_EQ(GraphicsSandboxGroup::requirement(false, {at28}).kind, Kind::notNeeded);
    EXPECT_EQ(GraphicsSandboxGroup::requirement(true, {"", at29}).kind, Kind::unavailable);
    EXPECT_EQ(GraphicsSandboxGroup::requirement(true, {"", at29, at28, "g"}).name, at28);
}

TEST(AcceleratedDriverProbe, CountsTheRenderServersWorkers) {
    test::FakeProcesses processes;
    const Path server = "/nowhere/virgl_render_server";
    EXPECT_FALSE(AcceleratedDriverProbe::contextCount(processes, 1, server)) << "no such QEMU";
    processes.table = {{1, {"qemu", false, {2, 3}}}, {2, {"other", false, {9}, "/bin/other"}}};
    EXPECT_FALSE(AcceleratedDriverProbe::contextCount(processes, 1, server)) << "no render server yet";
    processes.table[3] = {"virgl", false, {}, server};
    EXPECT_EQ(AcceleratedDriverProbe::contextCount(processes, 1, server), 0);
    processes.table[3].children = {0, 5, 6};
    EXPECT_EQ(AcceleratedDriverProbe::contextCount(processes, 1, server), 2);
}

}  // namespace
}  // namespace dorvane
