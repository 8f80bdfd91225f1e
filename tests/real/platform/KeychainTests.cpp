// SPDX-License-Identifier: Apache-2.0
// The secret service as desktops offer it: a message bus and a keyring daemon of the test's own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "base/Text.h"
#include "platform/linux/LinuxKeychain.h"
#include "runtime/ChildProcess.h"
#include "runtime/Sockets.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

std::optional<Path> findProgram(const std::string& name) {
    for (const auto& folder : split(std::getenv("PATH"), ':'))
        if (::access((Path(folder) / name).c_str(), X_OK) == 0) return Path(folder) / name;
    return std::nullopt;
}

/// Sets the variable by which libraries find the session's bus, and puts it back.
class SessionBusAddress {
  public:
    explicit SessionBusAddress(const std::string& address) { ::setenv(name, address.c_str(), 1); }
    SessionBusAddress(const SessionBusAddress&) = delete;
    SessionBusAddress& operator=(const SessionBusAddress&) = delete;
    ~SessionBusAddress() { ::unsetenv(name); }

  private:
    static constexpr auto name = "DBUS_SESSION_BUS_ADDRESS";
};

/// A child that is ended with the test.
class Daemon {
  public:
    Daemon(Path program, std::vector<std::string> arguments, const std::string& input = {}) {
        ProcessCommand command{std::move(program), std::move(arguments)};
        command.standardInput = StandardStream::pipe;
        command.standardOutput = StandardStream::pipe;
        child_ = ChildProcess::start(command);
        const auto writer = child_->takeStandardInput();
        output_ = child_->takeStandardOutput();
        EXPECT_EQ(::write(writer.get(), input.data(), input.size()), static_cast<ssize_t>(input.size()));
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon() {
        child_->terminate();
        child_->waitBlocking();
    }
    /// The first line that it prints: the sign that it is ready.
    std::string firstLine() {
        std::string line;
        for (char c; ::read(output_.get(), &c, 1) == 1 && c != '\n';) line += c;
        return line;
    }

  private:
    std::shared_ptr<ChildProcess> child_;
    FileDescriptor output_;
};

/// A process has one session bus for good, so each test gets a process.
void inOwnProcess(void (*body)()) {
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
    const SessionBusAddress address(busAddress);
    LinuxKeychain keychain(true, file);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
    EXPECT_TRUE(keychain.save("service", "account", asBytes("x")));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, longestHoldUp);
    EXPECT_TRUE(log.contains("No secret service is usable"));
    EXPECT_EQ(FileKeychain(file).read("service", "account"), toBytes("x"));
}

TEST(LinuxKeychain, busWithoutASecretServiceMeansTheFile) {
    if (!findProgram("dbus-daemon")) GTEST_SKIP() << "there is no dbus-daemon here";
    inOwnProcess([] {
        const TemporaryDirectory folder;
        Daemon bus(*findProgram("dbus-daemon"), {"--session", "--nofork", "--print-address=1",
                                                 "--address=unix:dir=" + folder.path().string()});
        expectTheFileSoon(bus.firstLine(), folder / "secrets.json");
    });
}

TEST(LinuxKeychain, busThatSwallowsCallsHoldsNobodyUpForLong) {
    if (!findProgram("dbus-daemon")) GTEST_SKIP() << "there is no dbus-daemon here";
    inOwnProcess([] {
        const TemporaryDirectory folder;
        // Without leave to receive anything, no answer ever comes back.
        writeFileAtomically(
            folder / "bus.conf",
            "<busconfig><type>session</type><listen>unix:dir=" + folder.path().string() +
                "</listen><policy context='default'><allow send_destination='*'/></policy></busconfig>");
        Daemon bus(*findProgram("dbus-daemon"),
                   {"--nofork", "--print-address=1", "--config-file=" + (folder / "bus.conf").string()});
        expectTheFileSoon(bus.firstLine(), folder / "secrets.json");
    });
}

TEST(LinuxKeychain, socketThatNeverAnswersHoldsNobodyUpForLong) {
    inOwnProcess([] {
        const TemporaryDirectory folder;
        const auto silent = listenUnixSocket((folder / "bus").string());
        expectTheFileSoon("unix:path=" + (folder / "bus").string(), folder / "secrets.json");
    });
}

TEST(LinuxKeychain, keyringKeepsPasswordsAndTakesThemOutOfTheFile) {
    if (!findProgram("dbus-daemon") || !findProgram("gnome-keyring-daemon"))
        GTEST_SKIP() << "there is no keyring daemon here";
    inOwnProcess([] {
        const TemporaryDirectory folder;
        const LogCapture log;
        Daemon bus(*findProgram("dbus-daemon"), {"--session", "--nofork", "--print-address=1",
                                                 "--address=unix:dir=" + folder.path().string()});
        const SessionBusAddress address(bus.firstLine());
        ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
        Daemon keyring(*findProgram("gnome-keyring-daemon"),
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
