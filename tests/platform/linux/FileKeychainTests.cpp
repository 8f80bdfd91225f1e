// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/LinuxKeychain.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

mode_t permissions(const Path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

TEST(LinuxKeychain, withoutABusPasswordsGoToAPrivateFile) {
    const TemporaryDirectory folder;
    const LogCapture log;
    const auto file = folder.path() / "d" / "secrets.json";
    LinuxKeychain keychain(false, file);
    const Bytes secret{0, 1, 0xff};
    EXPECT_EQ(keychain.read("service", "a"), std::nullopt);
    EXPECT_TRUE(log.contains("passwords are kept in"));
    EXPECT_TRUE(keychain.save("service", "a", secret));
    EXPECT_TRUE(keychain.save("service", "b", asBytes("two")));
    EXPECT_EQ(permissions(file), 0600U);
    EXPECT_EQ(LinuxKeychain(false, file).read("service", "a"), secret);
    keychain.remove("service", "a");
    EXPECT_EQ(keychain.read("service", "a"), std::nullopt);
    EXPECT_EQ(keychain.read("service", "b"), toBytes("two"));
}

TEST(FileKeychain, closesAFileThatOthersCanRead) {
    const TemporaryDirectory folder;
    const LogCapture log;
    FileKeychain keychain(folder / "s");
    keychain.save("x", "y", asBytes("z"));
    ::chmod((folder / "s").c_str(), 0644);
    EXPECT_EQ(keychain.read("x", "y"), toBytes("z"));
    EXPECT_EQ(permissions(folder / "s"), 0600U);
    EXPECT_TRUE(log.contains("could be read by other users"));
}

TEST(FileKeychain, damagedContentReadsAsAbsentAndIsKeptWhenANewFileIsWritten) {
    for (const std::string damaged : {"{", "[]", R"({"x": "y"})"}) {
        const TemporaryDirectory folder;
        const LogCapture log;
        writeFileAtomically(folder / "s", damaged, 0600);
        FileKeychain keychain(folder / "s");
        EXPECT_EQ(keychain.read("x", "y"), std::nullopt);
        EXPECT_TRUE(log.contains("Could not read a password"));
        EXPECT_TRUE(keychain.save("x", "y", asBytes("z")));
        EXPECT_EQ(keychain.read("x", "y"), toBytes("z"));
        EXPECT_EQ(readTextFile(folder / "s.damaged"), damaged);
    }
}

TEST(FileKeychain, doesNotTrustLinksOrFilesOfOthers) {
    const TemporaryDirectory folder;
    const LogCapture log;
    writeFileAtomically(folder / "planted", R"({"x": {"y": "eg=="}})", 0600);
    std::filesystem::create_symlink(folder / "planted", folder / "s");
    FileKeychain linked(folder / "s");
    EXPECT_EQ(linked.read("x", "y"), std::nullopt);
    EXPECT_FALSE(linked.save("x", "y", asBytes("z")));
    if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
    ASSERT_EQ(::chown((folder / "planted").c_str(), 65534, 65534), 0);
    EXPECT_EQ(FileKeychain(folder / "planted").read("x", "y"), std::nullopt);
}

}  // namespace
}  // namespace dorvane::test
