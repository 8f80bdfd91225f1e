// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxQEMUHostAdapter.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "base/Text.h"
#include "qemu/RecordedHelp.h"
#include "runtime/FileDescriptor.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using Facts = LinuxQEMUHostFacts;

QEMUCapabilities capabilitiesOf(const std::string& release) {
    return release.empty() ? QEMUCapabilities{} : test::recordedCapabilities(release);
}

/// "-option value" words of one line, adapted, without what every vector gets at its end.
std::string adapted(const std::string& line, const Facts& facts, const std::string& release) {
    auto result = LinuxQEMUHostAdapter(facts).adapt(split(line, ' '), capabilitiesOf(release));
    const std::vector<std::string> ending{"-global", "migration.x-max-bandwidth=1T", "-boot",
                                          "menu=on,splash-time=0"};
    if (result.size() < ending.size() || !std::equal(ending.rbegin(), ending.rend(), result.rbegin()))
        return "no ending";
    result.resize(result.size() - ending.size());
    return joined(result, " ");
}

TEST(LinuxQEMUHostAdapter, TranslatesByTheTable) {
    struct Row {
        std::string in;
        Facts facts;
        std::string release, out;
    };
    const Facts kvmOnIntel{.canOpenKVM = true}, arm{.isARM64 = true, .canOpenKVM = true};
    const Facts alsa{.hasALSA = true}, pulse{.hasPulseAudio = true, .hasALSA = true};
    const Facts desktop{.hasRenderNode = true, .hasPipeWire = true, .hasPulseAudio = true, .hasALSA = true};
    const std::string basic = "-machine virt-11.1,accel=hvf,highmem=on,virtio-mmio-transports=0";
    const std::string newest = "-machine virt-11.1,highmem=on,virtio-mmio-transports=0";
    const std::string accelerated = newest + " -accel hvf,ipa-granule-size=0x1000";
    const std::string emulated = " -accel tcg,thread=multi";
    const std::string audio = "-audiodev coreaudio,id=dorvanesnd";
    const std::string gl = "-device virtio-gpu-gl-pci,edid=on,xres=1,yres=2,blob=true,hostmem=8G";
    const std::string gpu = gl + ",neptune=on", plainGPU = "-device virtio-gpu-pci,edid=on,xres=1,yres=2";
    const std::string display = "-display dbus,p2p=on", glDisplay = display + ",gl=es";
    const std::string tpm = "-device tpm-tis-device,tpmdev=tpm0,ppi=off";
    const std::string disk = "-device nvme,drive=sysdisk,serial=dorvane,bootindex=1";
    const std::string others = "-drive if=none,file=/a,,b,,,id=x -name gl,,es -incoming";
    const std::vector<Row> table{
        {basic, {}, "11.1", newest + emulated},
        {basic, {}, "10.0", "-machine virt-10.0,highmem=on" + emulated},
        {basic, {}, "7.2", "-machine virt-7.2,highmem=on" + emulated},
        {basic, {}, "", newest + emulated},
        {accelerated, {}, "11.1", newest + emulated},
        {basic, kvmOnIntel, "10.0", "-machine virt-10.0,highmem=on" + emulated},
        {basic, arm, "10.0", "-machine virt-10.0,highmem=on -accel kvm"},
        {accelerated, arm, "10.0", "-machine virt-10.0,highmem=on -accel kvm"},
        {"-machine virt,highmem=on", {}, "7.2", "-machine virt,highmem=on" + emulated},
        {"-machine virt-9.2,highmem=on", {}, "10.0", "-machine virt-9.2,highmem=on" + emulated},
        {"-machine virt-2.6,highmem=on", {}, "11.1", "-machine virt-2.6,highmem=on" + emulated},

        {"-cpu host", {}, "11.1", "-cpu max,pauth-impdef=on"},
        {"-cpu host", arm, "11.1", "-cpu host"},

        {audio, {}, "11.1", "-audiodev none,id=dorvanesnd"},
        {audio, desktop, "10.0", "-audiodev pipewire,id=dorvanesnd"},
        {audio, desktop, "11.1", "-audiodev pa,id=dorvanesnd"},
        {audio, pulse, "10.0", "-audiodev pa,id=dorvanesnd"},
        {audio, alsa, "7.2", "-audiodev alsa,id=dorvanesnd"},
        {audio, desktop, "", "-audiodev none,id=dorvanesnd"},

        {gpu, {}, "11.1", plainGPU},
        {gpu, desktop, "11.1", gl},
        {gpu, desktop, "7.2", plainGPU},
        {gpu, desktop, "", plainGPU},
        {glDisplay, {}, "11.1", display},
        {glDisplay, desktop, "11.1", glDisplay},
        {glDisplay, desktop, "7.2", display},
        {"-display none", {}, "11.1", "-display none"},
        {"-serial file:/a,,b,,,,c", {}, "11.1", "-serial file:/a,b,,c"},

        {tpm, {}, "11.1", tpm},
        {tpm, {}, "10.0", "-device tpm-tis-device,tpmdev=tpm0"},
        {tpm, {}, "", tpm},
        {plainGPU, {}, "7.2", plainGPU},
        {disk, {}, "7.2", disk},
        {others, {}, "10.0", others},
    };
    for (const auto& row : table)
        EXPECT_EQ(adapted(row.in, row.facts, row.release), row.out) << row.in << " on " << row.release;
}

TEST(LinuxQEMUHostAdapter, KeepsTheFirmwaresMenuWaitForAnInstaller) {
    const auto endingOf = [](const std::string& drive) {
        return LinuxQEMUHostAdapter({}).adapt({"-drive", drive}, {}).back();
    };
    EXPECT_EQ(endingOf("if=none,id=installer,media=cdrom,file=/x.iso"), "migration.x-max-bandwidth=1T");
    EXPECT_EQ(endingOf("if=none,id=iso0,file=/a,,id=installer,,b"), "menu=on,splash-time=0");
}

TEST(LinuxQEMUHostFacts, LooksAtDevicesAndSession) {
    const test::TemporaryDirectory directory;
    const auto make = [&](const std::string& name) {
        std::filesystem::create_directories((directory / name).parent_path());
        const FileDescriptor file(::open((directory / name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    };
    make("dri/card0");
    make("snd/controlC0");
    const auto probe = [&](const Environment& environment) {
        return Facts::probe(environment, directory.path());
    };
    auto expected = probe({});
    EXPECT_EQ(expected, (Facts{expected.isARM64})) << "a card alone can't render, a control alone can't play";

    for (const char* name : {"kvm", "dri/renderD128", "snd/pcmC0D0p", "session/pulse/native"}) make(name);
    expected.canOpenKVM = expected.hasRenderNode = expected.hasALSA = expected.hasPulseAudio = true;
    EXPECT_EQ(probe({{"XDG_RUNTIME_DIR", (directory / "session").string()}}), expected);
    expected.hasPulseAudio = false;
    expected.hasPipeWire = true;
    EXPECT_EQ(probe({{"PIPEWIRE_REMOTE", "remote"}, {"PULSE_SERVER", ""}}), expected);
}

}  // namespace
}  // namespace dorvane
