// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxQEMUHostAdapter.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "base/Text.h"
#include "qemu/QEMUCommandBuilder.h"
#include "qemu/RecordedHelp.h"
#include "runtime/FileDescriptor.h"
#include "support/TemporaryDirectory.h"

namespace dorvane {
namespace {

using Facts = LinuxQEMUHostFacts;

Facts armWithKVM() {
    Facts facts;
    facts.isARM64 = facts.canOpenKVM = true;
    return facts;
}

Facts workstation() {
    Facts facts;
    facts.hasRenderNode = facts.hasPipeWire = facts.hasPulseAudio = facts.hasALSA = true;
    return facts;
}

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
    const std::string basic = "-machine virt-11.1,accel=hvf,highmem=on,virtio-mmio-transports=0";
    const std::string accelerated =
        "-machine virt-11.1,highmem=on,virtio-mmio-transports=0 -accel hvf,ipa-granule-size=0x1000";
    const std::string gpu = "-device virtio-gpu-gl-pci,edid=on,xres=1,yres=2,blob=true,hostmem=8G,neptune=on";
    const std::string tpm = "-device tpm-tis-device,tpmdev=tpm0,ppi=off";
    Facts kvmOnIntel, pulse, alsa;
    kvmOnIntel.canOpenKVM = true;
    pulse.hasPulseAudio = pulse.hasALSA = true;
    alsa.hasALSA = true;
    const std::vector<Row> table{
        {basic, {}, "11.1", "-machine virt-11.1,highmem=on,virtio-mmio-transports=0 -accel tcg,thread=multi"},
        {basic, {}, "10.0", "-machine virt-10.0,highmem=on -accel tcg,thread=multi"},
        {basic, {}, "7.2", "-machine virt-7.2,highmem=on -accel tcg,thread=multi"},
        {basic, {}, "", "-machine virt-11.1,highmem=on,virtio-mmio-transports=0 -accel tcg,thread=multi"},
        {accelerated,
         {},
         "11.1",
         "-machine virt-11.1,highmem=on,virtio-mmio-transports=0 -accel tcg,thread=multi"},
        {basic, kvmOnIntel, "10.0", "-machine virt-10.0,highmem=on -accel tcg,thread=multi"},
        {basic, armWithKVM(), "10.0", "-machine virt-10.0,highmem=on -accel kvm"},
        {accelerated, armWithKVM(), "10.0", "-machine virt-10.0,highmem=on -accel kvm"},
        {"-machine virt,highmem=on", {}, "7.2", "-machine virt,highmem=on -accel tcg,thread=multi"},
        {"-machine virt-9.2,highmem=on", {}, "10.0", "-machine virt-9.2,highmem=on -accel tcg,thread=multi"},
        {"-machine virt-2.6,highmem=on", {}, "11.1", "-machine virt-2.6,highmem=on -accel tcg,thread=multi"},

        {"-cpu host", {}, "11.1", "-cpu max,pauth-impdef=on"},
        {"-cpu host", armWithKVM(), "11.1", "-cpu host"},

        {"-audiodev coreaudio,id=dorvanesnd", {}, "11.1", "-audiodev none,id=dorvanesnd"},
        {"-audiodev coreaudio,id=dorvanesnd", workstation(), "10.0", "-audiodev pipewire,id=dorvanesnd"},
        {"-audiodev coreaudio,id=dorvanesnd", workstation(), "11.1", "-audiodev pa,id=dorvanesnd"},
        {"-audiodev coreaudio,id=dorvanesnd", pulse, "10.0", "-audiodev pa,id=dorvanesnd"},
        {"-audiodev coreaudio,id=dorvanesnd", alsa, "7.2", "-audiodev alsa,id=dorvanesnd"},
        {"-audiodev coreaudio,id=dorvanesnd", workstation(), "", "-audiodev none,id=dorvanesnd"},

        {gpu, {}, "11.1", "-device virtio-gpu-pci,edid=on,xres=1,yres=2"},
        {gpu, workstation(), "11.1", "-device virtio-gpu-gl-pci,edid=on,xres=1,yres=2,blob=true,hostmem=8G"},
        {gpu, workstation(), "7.2", "-device virtio-gpu-pci,edid=on,xres=1,yres=2"},
        {gpu, workstation(), "", "-device virtio-gpu-pci,edid=on,xres=1,yres=2"},
        {"-display dbus,p2p=on,gl=es", {}, "11.1", "-display dbus,p2p=on"},
        {"-display dbus,p2p=on,gl=es", workstation(), "11.1", "-display dbus,p2p=on,gl=es"},
        {"-display dbus,p2p=on,gl=es", workstation(), "7.2", "-display dbus,p2p=on"},
        {"-display none", {}, "11.1", "-display none"},
        {"-serial file:/a,,b,,,,c", {}, "11.1", "-serial file:/a,b,,c"},

        {tpm, {}, "11.1", tpm},
        {tpm, {}, "10.0", "-device tpm-tis-device,tpmdev=tpm0"},
        {tpm, {}, "", tpm},
        {"-device virtio-gpu-pci,edid=on,xres=1,yres=2",
         {},
         "7.2",
         "-device virtio-gpu-pci,edid=on,xres=1,yres=2"},
        {"-device nvme,drive=sysdisk,serial=dorvane,bootindex=1",
         {},
         "7.2",
         "-device nvme,drive=sysdisk,serial=dorvane,bootindex=1"},
        {"-drive if=none,file=/a,,b,,,id=x -name gl,,es -incoming",
         {},
         "10.0",
         "-drive if=none,file=/a,,b,,,id=x -name gl,,es -incoming"},
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

TEST(LinuxQEMUHostAdapter, AWholeVectorOnThePackagedRuntime) {
    DorvaneVMConfig config;
    config.cpuCount = 2;
    config.memoryBytes = 2ULL << 30;
    config.macAddress = "52:54:00:12:34:56";
    config.display = {1280, 800, 72};
    config.windowsPlatform = WindowsPlatformIdentity{"virt-11.1", true, true};
    QEMURuntimePaths paths;
    paths.firmwareCode = "/code.fd";
    paths.qmpSocket = "/r/q.sock";
    paths.displayMonitorSocket = "/r/d.sock";
    paths.swtpmSocket = "/r/t.sock";
    const auto vector = QEMUCommandBuilder::buildArguments(config, VMBundle("/vms/a"), {}, paths);
    const auto result = LinuxQEMUHostAdapter({}).adapt(vector, test::recordedCapabilities("11.1"));
    EXPECT_EQ(
        joined(result, " "),
        "-name a -machine virt-11.1,highmem=on,virtio-mmio-transports=0 -accel tcg,thread=multi "
        "-cpu max,pauth-impdef=on -smp 2 -m 2048M -rtc base=localtime "
        "-drive if=pflash,format=raw,readonly=on,file=/code.fd -drive "
        "if=pflash,format=qcow2,file=/vms/a/nvram.qcow2 "
        "-drive if=none,id=sysdisk,node-name=sysroot,format=qcow2,cache=writeback,file=/vms/a/disk.qcow2 "
        "-device nvme,drive=sysdisk,serial=dorvane,bootindex=1 -chardev socket,id=chrtpm,path=/r/t.sock "
        "-tpmdev emulator,id=tpm0,chardev=chrtpm -device tpm-tis-device,tpmdev=tpm0,ppi=off "
        "-device virtio-gpu-pci,edid=on,xres=1280,yres=800 -device qemu-xhci,id=usb,p2=8,p3=8 -device "
        "usb-kbd "
        "-device usb-tablet -audiodev none,id=dorvanesnd -device intel-hda -device "
        "hda-output,audiodev=dorvanesnd "
        "-nic user,model=virtio-net-pci,mac=52:54:00:12:34:56 -qmp unix:/r/q.sock,server=on,wait=off "
        "-qmp unix:/r/d.sock,server=on,wait=off -display dbus,p2p=on "
        "-global migration.x-max-bandwidth=1T -boot menu=on,splash-time=0");
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
