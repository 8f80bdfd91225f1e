// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "base/SHA256.h"
#include "core/ConfigHash.h"
#include "qemu/QEMUCommandBuilder.h"
#include "qemu/QEMUSuspendDecision.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using Outcome = QEMUSuspendDecision::Outcome;

std::string digest(const DorvaneVMConfig& machine, const VMAttachments& attachments = {},
                   const Path& runtime = "/r", int port = 47100) {
    QEMURuntimePaths paths;
    paths.qmpSocket = runtime / "q.sock";
    paths.vdagentSocket = runtime / "a.sock";
    paths.systemDiskPath = runtime / "sys-0.qcow2";
    paths.sshHostPort = port;
    return QEMUSuspendFingerprint::deviceDigest(
        QEMUCommandBuilder::buildArguments(machine, VMBundle("/vms/a"), attachments, paths));
}

TEST(QEMUSuspendFingerprint, DigestsWhatTheGuestSees) {
    EXPECT_EQ(
        QEMUSuspendFingerprint::deviceDigest({"-name", "-m", "-m", "2M", "-x", "-device", "a,b", "-cpu"}),
        SHA256::hex("-m -m\n-device a,b"));
    EXPECT_EQ(QEMUSuspendFingerprint::deviceDigest({}), SHA256::hex(""));

    const auto same = digest(DorvaneVMConfig{});
    EXPECT_EQ(digest(DorvaneVMConfig{}, {}, "/elsewhere", 47111), same);
    DorvaneVMConfig changed;
    changed.memoryBytes += 1 << 20;
    EXPECT_NE(digest(changed), same);
    changed = {};
    ++changed.cpuCount;
    EXPECT_NE(digest(changed), same);
    VMAttachments stick;
    stick.usbStorageDevices = {"/stick.img"};
    EXPECT_NE(digest(DorvaneVMConfig{}, stick), same);
}

TEST(QEMUSuspendFingerprint, KeepsItsTextForm) {
    const QEMUSuspendFingerprint value{"aa", "bb=cc"};
    EXPECT_EQ(value.serialized(), "devices=aa\nengine=bb=cc\n");
    EXPECT_EQ(QEMUSuspendFingerprint::parse(value.serialized()), value);
    EXPECT_EQ(QEMUSuspendFingerprint::parse("noise\n\nengine=e\nmore=1\ndevices="),
              (QEMUSuspendFingerprint{"", "e"}));
    for (const char* text : {"", "devices=a", "engine=a\n", "devices a\nengine=b"})
        EXPECT_EQ(QEMUSuspendFingerprint::parse(text), std::nullopt) << text;
}

TEST(QEMUSuspendDecision, NeverResumesAStaleState) {
    const test::TemporaryDirectory directory;
    const VMBundle bundle(directory.path());
    const QEMUSuspendFingerprint saved{"d", "e"};
    const auto decide = [&](const QEMUSuspendFingerprint& current) {
        return QEMUSuspendDecision::decide(bundle, DorvaneVMConfig{}, current);
    };
    writeFileAtomically(bundle.savedStateHash(), configHash(DorvaneVMConfig{}) + "\n");
    writeFileAtomically(bundle.savedStateDevices(), saved.serialized() + "extra=1\n");
    EXPECT_EQ(decide(saved), Outcome::discard) << "no state";

    writeFileAtomically(bundle.savedState(), "state");
    EXPECT_EQ(decide(saved), Outcome::resume);
    EXPECT_EQ(decide({"other", "e"}), Outcome::hardwareChanged);
    EXPECT_EQ(decide({"d", "other"}), Outcome::discard) << "another build of QEMU";
    EXPECT_EQ(decide({"other", "other"}), Outcome::discard);

    writeFileAtomically(bundle.savedStateDevices(), "devices=d\n");
    EXPECT_EQ(decide(saved), Outcome::discard) << "an unreadable sidecar";
    std::filesystem::remove(bundle.savedStateDevices());
    EXPECT_EQ(decide(saved), Outcome::discard) << "no sidecar";

    writeFileAtomically(bundle.savedStateDevices(), saved.serialized());
    DorvaneVMConfig other;
    ++other.cpuCount;
    EXPECT_EQ(QEMUSuspendDecision::decide(bundle, other, saved), Outcome::discard) << "another description";
    std::filesystem::remove(bundle.savedStateHash());
    EXPECT_EQ(decide(saved), Outcome::discard) << "no hash";
}

}  // namespace
}  // namespace dorvane
