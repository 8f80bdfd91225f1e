// SPDX-License-Identifier: Apache-2.0
// The secret service as desktops offer it: a message bus and a keyring daemon of the test's own.
#include <gtest/gtest.h>

#include <chrono>

#include "Child.h"
#include "platform/linux/LinuxKeychain.h"
#include "runtime/Sockets.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

const Path busDaemon = "/usr/bin/dbus-daemon", keyringDaemon = "/usr/bin/gnome-keyring-daemon";

class Daemon : public Child {
  public:
    Daemon(const Path& program, const std::vector<std::string>& arguments, const std::string& input = {})
        : Child({.executable = program,
                 .arguments = arguments,
                 .standardInput = StandardStream::pipe,
                 .standardOutput = StandardStream::pipe}) {
        const auto writer = process().takeStandardInput();
        EXPECT_EQ(::write(writer.get(), input.data(), input.size()), static_cast<ssize_t>(input.size()));
    }
    /// The first line that it prints: the sign that it is ready.
    std::string firstLine() const { return readLine(output_); }

  private:
    FileDescriptor output_ = process().takeStandardOutput();
};

/// A session's bus with its socket in the folder.
Daemon busIn(const TemporaryDirectory& folder) {
    return {busDaemon,
            {"--session", "--nofork", "--print-address=1", "--address=unix:dir=" + folder.path().string()}};
}

/// By this libraries find the session's bus.
void setBusAddress(const std::string& address) { ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1); }

/// A process has one session bus for good, so each bus gets a process.
void inOwnProcess(const std::function<void()>& body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            body();
            std::_Exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

constexpr auto longestHoldUp = std::chrono::seconds(4);

/// Reads and saves a password over the bus at `address`, which is of no use, and expects the file to serve.
void expectTheFileSoon(const std::string& busAddress, const Path& file) {
    const LogCapture log;
    setBusAddress(busAddress);
    LinuxKeychain keychain(true, file);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
    EXPECT_TRUE(keychain.save("service", "account", asBytes("x")));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, longestHoldUp);
    EXPECT_TRUE(log.contains("No secret service is usable"));
    EXPECT_EQ(FileKeychain(file).read("service", "account"), toBytes("x"));
}

TEST(LinuxKeychain, busWithoutASecretServiceOrThatSwallowsCallsMeansTheFileSoon) {
    for (const bool swallows : {false, true}) {
        SCOPED_TRACE(swallows);
        inOwnProcess([swallows] {
            const TemporaryDirectory folder;
            // Without leave to receive anything, no answer ever comes back.
            const auto configuration = folder / "bus.conf";
            writeFileAtomically(
                configuration,
                "<busconfig><type>session</type><listen>unix:dir=" + folder.path().string() +
                    "</listen><policy context='default'><allow send_destination='*'/></policy></busconfig>");
            const auto bus = swallows ? Daemon(busDaemon, {"--nofork", "--print-address=1",
                                                           "--config-file=" + configuration.string()})
                                      : busIn(folder);
            expectTheFileSoon(bus.firstLine(), folder / "secrets.json");
        });
    }
}

TEST(LinuxKeychain, socketThatNeverAnswersHoldsNobodyUpForLong) {
    inOwnProcess([] {
        const TemporaryDirectory folder;
        const auto silent = listenUnixSocket((folder / "bus").string());
        expectTheFileSoon("unix:path=" + (folder / "bus").string(), folder / "secrets.json");
    });
}

TEST(LinuxKeychain, keyringKeepsPasswordsAndTakesThemOutOfTheFile) {
    inOwnProcess([] {
        const TemporaryDirectory folder;
        const LogCapture log;
        const auto bus = busIn(folder);
        setBusAddress(bus.firstLine());
        ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
        Daemon keyring(keyringDaemon,
                       {"--foreground", "--unlock", "--components=secrets",
                        "--control-directory=" + folder.path().string()},
                       "password");
        keyring.firstLine();
        FileKeychain earlier(folder / "secrets.json");
        earlier.save("service", "account", asBytes("from the file"));
        const Bytes secret{0, 1, 2, 0xff};
        {
            LinuxKeychain keychain(true, folder / "secrets.json");
            EXPECT_EQ(keychain.read("service", "account"), toBytes("from the file"));
            EXPECT_TRUE(keychain.save("service", "account", secret));
            EXPECT_TRUE(keychain.save("service", "other", asBytes("two")));
            EXPECT_EQ(earlier.read("service", "account"), std::nullopt);
        }
        LinuxKeychain keychain(true, folder / "secrets.json");
        EXPECT_EQ(keychain.read("service", "account"), secret);
        keychain.remove("service", "account");
        EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
        EXPECT_EQ(keychain.read("service", "other"), toBytes("two"));
        EXPECT_TRUE(log.lines().empty()) << log.lines().front().message;
    });
}

}  // namespace
}  // namespace dorvane::test
