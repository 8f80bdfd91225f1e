// SPDX-License-Identifier: Apache-2.0
#include "core/VMAttachmentsBuilder.h"

#include <gtest/gtest.h>

#include "core/DorvaneVMConfig.h"
#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

class FakePayload : public GuestAgentPayloadStaging {
  public:
    Path stage() const override {
        if (fails) throw FileError("write", "/payload", ENOSPC);
        return "/payload";
    }
    bool fails = false;
};

class VMAttachmentsBuilderTest : public testing::Test {
  protected:
    VMAttachmentsBuilderTest() {
        vm.osType = VMOSType::linux;
        vm.vmPath = folder.path().string();
        for (const std::string name : {"a.iso", "b.img"}) writeFileAtomically(folder / name, "x");
    }
    std::string at(const std::string& name) const { return (folder / name).string(); }
    LogCapture log;
    TemporaryDirectory folder;
    FakePayload payload;
    VMAttachmentsBuilder builder{&payload};
    VMRecordFields vm;
};

TEST_F(VMAttachmentsBuilderTest, trimsPathsAndDropsBlankOnes) {
    vm.sharedFolders = {{UUID::random(), " " + vm.vmPath + "\n", "", true}, {UUID::random(), " ", "", false}};
    vm.pendingInstallerImagePath = " " + at("a.iso");
    vm.mountedImages = {{at("a.iso") + " ", "\n"}};
    vm.usbStorageDevices = {{"", at("b.img")}};
    const auto attachments = builder.attachments(vm);
    ASSERT_EQ(attachments.sharedFolders.size(), 1u);
    EXPECT_EQ(attachments.sharedFolders.front().localPath, vm.vmPath);
    EXPECT_TRUE(attachments.sharedFolders.front().readOnly);
    EXPECT_EQ(attachments.installerImagePath, at("a.iso"));
    EXPECT_EQ(attachments.mountedImages, std::vector{at("a.iso")});
    EXPECT_EQ(attachments.usbStorageDevices, std::vector{at("b.img")});
    vm.pendingInstallerImagePath = " ";
    EXPECT_FALSE(builder.attachments(vm).installerImagePath);
}

TEST_F(VMAttachmentsBuilderTest, namesWhatIsMissing) {
    const auto expectMissing = [&](const std::string& words) {
        EXPECT_EQ(errorOf([&] { builder.attachments(vm); }).text(), words);
    };
    vm.usbStorageDevices = {{"/no.img"}};
    expectMissing("USB storage image does not exist: /no.img");
    vm.mountedImages = {{"/no.iso"}};
    expectMissing("Mounted image does not exist: /no.iso");
    vm.pendingInstallerImagePath = "/no-installer.iso";
    expectMissing("Installer image does not exist: /no-installer.iso");
    vm.sharedFolders = {{UUID::random(), "/no folder", "", false}};
    expectMissing("Shared folder does not exist: /no folder");
}

TEST_F(VMAttachmentsBuilderTest, stagesTheAgentOnlyForALinuxGuestThatWantsIt) {
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    const auto payloadWith = [&](std::optional<bool> wanted) {
        config.linuxGuestAgent = wanted;
        config.write(folder / "config.json");
        return builder.attachments(vm).guestAgentPayloadPath;
    };
    EXPECT_FALSE(payloadWith({}));
    EXPECT_FALSE(payloadWith(false));
    EXPECT_EQ(payloadWith(true), "/payload");
    payload.fails = true;
    EXPECT_FALSE(payloadWith(true)) << "the machine starts without it";
    EXPECT_TRUE(log.contains("Could not stage the guest agent payload: "));
    payload.fails = false;
    vm.osType = VMOSType::windows;
    EXPECT_FALSE(payloadWith(true));
}

}  // namespace
}  // namespace dorvane::test
