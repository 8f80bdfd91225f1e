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

DorvaneVMConfig config() {
    DorvaneVMConfig result;
    result.cpuCount = 2;
    result.memoryBytes = 4ULL << 30;
    result.macAddress = "52:54:00:12:34:56";
    result.display = {1280, 800, 72};
    return result;
}

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

    const auto same = digest(config());
    EXPECT_EQ(digest(config(), {}, "/elsewhere", 47111), same);
    auto changed = config();
    changed.memoryBytes += 1 << 20;
    EXPECT_NE(digest(changed), same);
    changed = config();
    changed.cpuCount = 3;
    EXPECT_NE(digest(changed), same);
    VMAttachments stick;
    stick.usbStorageDevices = {"/stick.img"};
    EXPECT_NE(digest(config(), stick), same);
}

TEST(QEMUSuspendFingerprint, DigestsTheEngineInPieces) {
    const test::TemporaryDirectory directory;
    const std::string content((2 << 20) + 12345, 'q');
    writeFileAtomically(directory / "qemu", content);
    EXPECT_EQ(QEMUSuspendFingerprint::engineDigest(directory / "qemu"), SHA256::hex(content));
    EXPECT_EQ(QEMUSuspendFingerprint::engineDigest(directory / "missing"), "unreadable");
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
        return QEMUSuspendDecision::decide(bundle, config(), current);
    };
    writeFileAtomically(bundle.savedStateHash(), configHash(config()) + "\n");
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
    auto other = config();
    other.cpuCount = 8;
    EXPECT_EQ(QEMUSuspendDecision::decide(bundle, other, saved), Outcome::discard) << "another description";
    std::filesystem::remove(bundle.savedStateHash());
    EXPECT_EQ(decide(saved), Outcome::discard) << "no hash";
}

TEST(ConfigHash, IsTheDigestOfTheSortedDescription) {
    EXPECT_EQ(configHash(config()), SHA256::hex(compactJSON(config().encoded())));
    auto other = config();
    other.audioOutput = true;
    EXPECT_NE(configHash(other), configHash(config()));
}

}  // namespace
}  // namespace dorvane
