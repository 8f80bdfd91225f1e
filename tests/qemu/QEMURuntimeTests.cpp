// SPDX-License-Identifier: Apache-2.0
// Where the engine's files come from and where a launch puts its own.
#include <gmock/gmock.h>

#include <fstream>

#include "base/SHA256.h"
#include "core/DorvaneError.h"
#include "qemu/GuestKeyStore.h"
#include "qemu/QEMUChildEnvironment.h"
#include "qemu/QEMUEngineDigestCache.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "qemu/QEMURuntimeResources.h"
#include "qemu/QEMUWindowsGuestSupport.h"
#include "support/ErrorOf.h"
#include "support/FakeQEMUInstallation.h"
#include "support/TestRuntime.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

struct ResourcesScene {
    test::FakeQEMUInstallation package;
    test::TemporaryDirectory elsewhere;

    std::optional<QEMURuntimeResources> locate(const Environment& environment = {}) const {
        return QEMURuntimeResources::locate(
            {QEMURuntimeResources::packaged("/nowhere"), QEMURuntimeResources::packaged(package.root())},
            environment);
    }
};

TEST(QEMURuntimeResources, TakesTheFirstWholePackage) {
    const ResourcesScene scene;
    std::ofstream(scene.package.root() / "environment") << "QEMU_MODULE_DIR=/a=b\n=no\nnot a line\n";
    const auto found = scene.locate();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->executable, scene.package.emulator());
    EXPECT_EQ(found->swtpm, scene.package.helpers() / "swtpm");
    EXPECT_EQ(found->environment, (Environment{{"QEMU_MODULE_DIR", "/a=b"}}));
    EXPECT_FALSE(found->dataDirectory || found->guestDrivers || found->renderServer)
        << "not there, so absent";
    fs::remove(scene.package.root() / "environment");
    fs::create_directory(scene.package.root() / "environment");
    EXPECT_TRUE(scene.locate().value().environment.empty()) << "an unusable file is passed over";
    fs::remove(scene.package.root() / "Resources" / "qemu" / "secboot-vars.fd");
    EXPECT_FALSE(scene.locate());
}

TEST(QEMURuntimeResources, VariablesComeFirstAndNeverFallBack) {
    const ResourcesScene scene;
    std::ofstream(scene.package.root() / "environment") << "QEMU_MODULE_DIR=/a\n";
    const auto own = scene.elsewhere / "my-qemu";
    std::ofstream{own} << "program";
    const auto found =
        scene.locate({{"DORVANE_QEMU_BIN", own.string()}, {"DORVANE_QEMU_SWTPM", "/nowhere/swtpm"}});
    ASSERT_TRUE(found);
    EXPECT_EQ(found->executable, own);
    EXPECT_EQ(found->imageTool, scene.elsewhere / "qemu-img");
    EXPECT_EQ(found->firmwareCode, scene.package.root() / "Resources" / "qemu" / "secboot-code.fd");
    EXPECT_FALSE(found->swtpm);
    EXPECT_TRUE(found->environment.empty()) << "a developer's own emulator has its own modules";
    for (const auto* variable : {"DORVANE_QEMU_BIN", "DORVANE_QEMU_FIRMWARE", "DORVANE_QEMU_NVRAM"})
        EXPECT_FALSE(scene.locate({{variable, "/nowhere/file"}})) << variable;
}

TEST(QEMUWindowsGuestSupport, SaysWhatIsMissing) {
    const ResourcesScene scene;
    // They come and go while the program runs.
    std::optional<QEMURuntimeResources> resources;
    const QEMUWindowsGuestSupport support([&] { return resources; }, {}, {});
    EXPECT_EQ(support.unavailableReason(), "This version of Dorvane does not include Windows support.");
    EXPECT_EQ(support.diskImageTool(), nullptr);
    resources = scene.locate();
    EXPECT_FALSE(support.unavailableReason());
    EXPECT_NE(support.diskImageTool(), nullptr);
    resources->swtpm.reset();
    EXPECT_EQ(support.unavailableReason(),
              "Windows 11 requires a TPM, which this version of Dorvane cannot provide.");
}

struct DirectoryScene {
    test::TemporaryDirectory base;
    UUID id = *UUID::parse("0A1B2C3D-0000-4000-8000-000000000000");
    QEMURuntimeDirectory directory = QEMURuntimeDirectory::make(id, base.path());
};

TEST(QEMURuntimeDirectory, IsShortAndPrivate) {
    const DirectoryScene scene;
    EXPECT_EQ(scene.directory.path(), scene.base / "dvn/0A1B2C3D");
    const auto mode = fs::status(scene.directory.path()).permissions();
    EXPECT_EQ(mode & (fs::perms::group_all | fs::perms::others_all), fs::perms::none);
    EXPECT_EQ(QEMURuntimeDirectory::make(scene.id, scene.base.path()), scene.directory)
        << "a leftover is used again";
    fs::remove(scene.directory.path());
    fs::create_symlink(scene.base.path(), scene.directory.path());
    EXPECT_THROW(QEMURuntimeDirectory::make(scene.id, scene.base.path()), FileError)
        << "somebody else's link";
}

TEST(QEMURuntimeDirectory, LinksTheSystemDiskAnewEachTime) {
    const DirectoryScene scene;
    const VMBundle bundle(scene.base / "a,b");
    fs::create_directory(bundle.directoryURL);
    for (int launch = 0; launch < 2; ++launch) {
        const auto link = scene.directory.linkSystemDisk(bundle);
        EXPECT_EQ(link.filename(), "sys-0.qcow2");
        EXPECT_EQ(fs::read_symlink(link), bundle.qcow2Disk());
        EXPECT_EQ(fs::read_symlink(scene.directory.path() / "Snapshots"), bundle.snapshotsDirectory());
    }
    EXPECT_TRUE(fs::is_directory(bundle.snapshotsDirectory()));
    EXPECT_THROW(QEMURuntimeDirectory::repointLink(scene.base / "none/sys-0.qcow2", "/x"), std::exception);
}

TEST(QEMUChildEnvironment, ChangesOnlyWhatMustBe) {
    const Environment own{{"HOME", "/h"}, {"APP_SANDBOX_GROUP_ID", "stale"}};
    QEMURuntimePaths paths;
    EXPECT_FALSE(qemuChildEnvironment(own, {}, paths));
    EXPECT_EQ(qemuChildEnvironment(own, {{"QEMU_MODULE_DIR", "/m"}}, paths),
              (Environment{{"HOME", "/h"}, {"APP_SANDBOX_GROUP_ID", "stale"}, {"QEMU_MODULE_DIR", "/m"}}));
    paths.renderServer = "/r";
    EXPECT_EQ(qemuChildEnvironment(own, {}, paths),
              (Environment{{"HOME", "/h"}, {"RENDER_SERVER_EXEC_PATH", "/r"}}));
    paths.sandboxGroupID = "group";
    EXPECT_EQ(qemuChildEnvironment(own, {}, paths)->at("APP_SANDBOX_GROUP_ID"), "group");
}

TEST(QEMUEngineDigestCache, ReadsAReplacedBinaryAnewAndKeepsWhatWasAskedFor) {
    test::TestRuntime host;
    const test::TemporaryDirectory directory;
    QEMUEngineDigestCache cache(host.runtime());
    // More than is read at once.
    const std::string one((2 << 20) + 12345, 'q');
    writeFileAtomically(directory / "qemu", one);
    EXPECT_EQ(host.run(cache.digest(directory / "qemu").value()), SHA256::hex(one));
    const auto again = cache.digest(directory / "qemu");
    writeFileAtomically(directory / "qemu", "two");
    EXPECT_EQ(host.run(cache.digest(directory / "qemu").value()), SHA256::hex("two"));
    EXPECT_EQ(host.run(again.value()), SHA256::hex(one));
    EXPECT_EQ(host.run(cache.digest(directory / "none").value()), "unreadable");
}

TEST(GuestKeyStore, MakesAPairOnceAndAgainWhenHalfIsLost) {
    test::TestRuntime host(test::TestRuntime::TimeMode::manual);
    const test::TemporaryDirectory base;
    const GuestKeyStore store(host.runtime(), base.path());
    const auto id = UUID::random();
    const auto pair = host.run(store.keyPair(id));
    EXPECT_TRUE(pair.publicKey.starts_with("ssh-ed25519 ")) << pair.publicKey;
    EXPECT_TRUE(pair.publicKey.ends_with(id.text()));
    EXPECT_EQ(fs::status(pair.privateKey).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(host.run(store.keyPair(id)).publicKey, pair.publicKey);
    fs::remove(store.directory(id) / "id_ed25519.pub");
    EXPECT_NE(host.run(store.keyPair(id)).publicKey, pair.publicKey);
}

TEST(GuestKeyStore, ReportsTheToolsWords) {
    test::TestRuntime host(test::TestRuntime::TimeMode::manual);
    const test::TemporaryDirectory base;
    const std::pair<const char*, const char*> table[] = {
        {"/nowhere/keygen", "Could not create an SSH key for this VM: .*/nowhere/keygen.*"},
        {"/bin/false", "Could not create an SSH key for this VM: "},
        {"/bin/true", "Could not create an SSH key for this VM\\."},
    };
    for (const auto& [tool, reason] : table) {
        const GuestKeyStore store(host.runtime(), base.path(), tool);
        const auto error = test::errorOf([&] { host.run(store.keyPair(UUID::random())); });
        EXPECT_EQ(error.which(), DorvaneError::Case::vmStartupFailed);
        EXPECT_THAT(error.text(), testing::MatchesRegex(reason));
    }
}

}  // namespace
}  // namespace dorvane
