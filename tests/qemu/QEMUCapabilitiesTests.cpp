// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "base/Text.h"
#include "qemu/QEMUCapabilitiesCache.h"
#include "qemu/RecordedHelp.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane {
namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;

std::set<std::string> wordSet(const std::string& text) {
    const auto words = split(text, ' ');
    return {words.begin(), words.end()};
}

struct Release {
    std::string name, version, oldest, displays, audioDrivers, extras;
};

TEST(QEMUCapabilities, ReadsRealReleases) {
    const Release table[] = {
        {"7.2", "7.2.22", "virt-2.6", "none egl-headless curses spice-app dbus",
         "none alsa dbus oss pa sndio spice wav", ""},
        {"10.0", "10.0.13", "virt-2.6", "none egl-headless curses dbus", "none alsa dbus oss pa pipewire wav",
         "hostmem"},
        {"11.1", "11.1.3", "virt-5.2", "none egl-headless dbus", "none alsa dbus pa wav",
         "transports ppi hostmem"},
    };
    for (const auto& release : table) {
        SCOPED_TRACE(release.name);
        const auto found = test::recordedCapabilities(release.name);
        const auto extras = wordSet(release.extras);
        EXPECT_EQ(found.version, release.version);
        EXPECT_EQ(found.machineTypes.front(), "virt-" + release.name);
        EXPECT_EQ(found.machineTypes.back(), release.oldest);
        EXPECT_EQ(found.accelerators, std::set<std::string>{"tcg"});
        EXPECT_EQ(found.displays, wordSet(release.displays));
        EXPECT_EQ(found.audioDrivers, wordSet(release.audioDrivers));
        EXPECT_THAT(found.devices,
                    IsSupersetOf({"nvme", "virtio-gpu-pci", "virtio-gpu-gl-pci", "ramfb", "usb-storage"}));
        EXPECT_TRUE(found.machineProperties.contains("highmem"));
        EXPECT_EQ(found.machineProperties.contains("virtio-mmio-transports"), extras.contains("transports"));
        EXPECT_EQ(found.mayHaveProperty("tpm-tis-device", "ppi"), extras.contains("ppi"));
        EXPECT_EQ(found.mayHaveProperty("virtio-gpu-gl-pci", "hostmem"), extras.contains("hostmem"));
        EXPECT_FALSE(found.mayHaveProperty("virtio-gpu-gl-pci", "neptune"));
        EXPECT_TRUE(found.mayHaveProperty("nvme", "anything")) << "was not asked about";
    }
}

TEST(QEMUCapabilities, ReadsStrangeTextAsLittle) {
    EXPECT_EQ(QEMUCapabilities::parse({}), QEMUCapabilities{});
    QEMUHelpTexts texts;
    texts.version = "version ";
    texts.machines =
        "virt-9.9\nvirt-9.2 first line is no entry\n "
        "virt-10.0\r\nvirt-x.1\nvirt-1\nvirt-99999.0\nvirt\nvirt-\n"
        "virt-.1\nvirt-1.\nvirt--1.2\nvirt-1.-2\nvirt-1.2.3\nxvirt-1.2\n\nvirt-11.0";
    texts.devices = "name \"\nname \"a\"\nnamed \"b\"";
    texts.machineProperties = "options:\n  =x\n  none\n  a=<b>=c";
    const auto found = QEMUCapabilities::parse(texts);
    EXPECT_EQ(found.version, "");
    EXPECT_THAT(found.machineTypes, ElementsAre("virt-10.0", "virt-9.2"));
    EXPECT_THAT(found.devices, ElementsAre("a"));
    EXPECT_THAT(found.machineProperties, ElementsAre("", "a"));
}

TEST(QEMUCapabilitiesCache, AsksABinaryOnceUntilItIsReplaced) {
    test::TestRuntime test;
    const test::TemporaryDirectory directory;
    const auto binary = directory / "qemu";
    writeFileAtomically(binary, "one");
    int questions = 0;
    QEMUHelpTexts texts;
    QEMUCapabilitiesCache cache([&](const Path&, const Environment&) -> Task<QEMUHelpTexts> {
        ++questions;
        return [](QEMUHelpTexts answer) -> Task<QEMUHelpTexts> { co_return answer; }(texts);
    });
    const auto versionOf = [&](const Path& path) { return test.run(cache.capabilities(path, {})).version; };

    EXPECT_EQ(versionOf(binary), "");
    texts = test::recordedHelp("11.1");
    EXPECT_EQ(versionOf(binary), "11.1.3") << "an answer without a version is not kept";
    EXPECT_EQ(versionOf(binary), "11.1.3");
    EXPECT_EQ(questions, 2);
    texts = test::recordedHelp("10.0");
    writeFileAtomically(binary, "other");
    EXPECT_EQ(versionOf(binary), "10.0.13");
    EXPECT_THROW(versionOf(directory / "missing"), FileError);
    EXPECT_EQ(questions, 3);
}

TEST(QEMUCapabilitiesCache, RunsTheBinaryWithItsEnvironment) {
    test::TestRuntime test{test::TestRuntime::TimeMode::manual};
    const test::TemporaryDirectory directory;
    const auto binary = directory / "qemu";
    writeFileAtomically(binary, R"SH(#!/bin/sh
case "$*" in
--version) echo "QEMU emulator version $TOLD_VERSION (test)" ;;
"-machine help") printf 'Supported machines are:\nvirt-9.0 x\nvirt-9.1 y\n' ;;
"-machine virt,help") printf 'options:\n  highmem=<bool>\n' ;;
"-machine virt -device tpm-tis-device,help") printf 'options:\n  ppi=<bool>\n' ;;
*) echo "unknown" >&2; exit 1 ;;
esac
)SH",
                        0755);
    QEMUCapabilitiesCache cache(test.runtime());
    const auto found = test.run(cache.capabilities(binary, {{"TOLD_VERSION", "9.1.5"}}));
    EXPECT_EQ(found.version, "9.1.5");
    EXPECT_THAT(found.machineTypes, ElementsAre("virt-9.1", "virt-9.0"));
    EXPECT_THAT(found.machineProperties, ElementsAre("highmem"));
    EXPECT_THAT(found.deviceProperties.at("tpm-tis-device"), ElementsAre("ppi"));
    EXPECT_FALSE(found.deviceProperties.contains("virtio-gpu-pci"));
    writeFileAtomically(binary, "no program", 0755);
    EXPECT_THROW(test.run(cache.capabilities(binary, {})), POSIXError);
}

}  // namespace
}  // namespace dorvane
