// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUCommandBuilder.h"

#include <gtest/gtest.h>

#include "qemu/USBStorageSerial.h"

namespace dorvane {
namespace {

DorvaneVMConfig windowsConfig() {
    DorvaneVMConfig config;
    config.os = VMOSType::windows;
    config.cpuCount = 4;
    config.memoryBytes = 8589934592;
    config.macAddress = "52:54:00:12:34:56";
    config.display = {1920, 1200, 144};
    config.windowsPlatform = WindowsPlatformIdentity{"virt-11.1", true, true};
    return config;
}

QEMURuntimePaths basicPaths() {
    QEMURuntimePaths paths;
    paths.executable = "/pkg/qemu-system-aarch64";
    paths.firmwareCode = "/pkg/secboot-code.fd";
    paths.dataDirectory = "/pkg/share,raw";
    paths.qmpSocket = "/r/q.sock";
    paths.vncSocket = "/r/v.sock";
    paths.vdagentSocket = "/r/a.sock";
    paths.sharesDiskDirectory = "/r/sh";
    paths.swtpmSocket = "/r/t.sock";
    paths.serialLog = "/vms/Win 11/console.log";
    paths.guestDriversImage = "/pkg/drivers.iso";
    paths.sshHostPort = 47100;
    paths.systemDiskPath = "/r/sys-0.qcow2";
    return paths;
}

QEMURuntimePaths acceleratedPaths() {
    auto paths = basicPaths();
    paths.vncSocket.reset();
    paths.displayMonitorSocket = "/r/d.sock";
    paths.renderServer = "/pkg/virgl_render_server";
    paths.sandboxGroupID = "group.example";
    return paths;
}

/// One line for each option with its value.
std::string built(const DorvaneVMConfig& config, const QEMURuntimePaths& paths,
                  const VMAttachments& attachments = {}, const Path& directory = "/vms/Win 11") {
    const auto arguments =
        QEMUCommandBuilder::buildArguments(config, VMBundle(directory), attachments, paths);
    std::string text = "\n";
    for (std::size_t i = 0; i < arguments.size(); ++i) text += arguments[i] + (i % 2 == 0 ? " " : "\n");
    return text;
}

/// `text` with each first piece replaced by its second; one that isn't there throws.
std::string edited(std::string text, const std::vector<std::pair<std::string, std::string>>& edits) {
    for (const auto& [from, to] : edits) text.replace(text.find(from), from.size(), to);
    return text;
}

const std::string basicMachine = R"(
-name Win 11
-machine virt-11.1,accel=hvf,highmem=on,virtio-mmio-transports=0
-L /pkg/share,raw
-cpu host
-smp 4
-m 8192M
-rtc base=localtime
-drive if=pflash,format=raw,readonly=on,file=/pkg/secboot-code.fd
-drive if=pflash,format=qcow2,file=/vms/Win 11/nvram.qcow2
-drive if=none,id=sysdisk,node-name=sysroot,format=qcow2,cache=writeback,file=/r/sys-0.qcow2
-device nvme,drive=sysdisk,serial=dorvane,bootindex=1
-chardev socket,id=chrtpm,path=/r/t.sock
-tpmdev emulator,id=tpm0,chardev=chrtpm
-device tpm-tis-device,tpmdev=tpm0,ppi=off
-device virtio-gpu-pci,edid=on,xres=1920,yres=1200
-device qemu-xhci,id=usb,p2=8,p3=8
-device usb-kbd
-device usb-tablet
-audiodev coreaudio,id=dorvanesnd
-device intel-hda
-device hda-output,audiodev=dorvanesnd
-nic user,model=virtio-net-pci,mac=52:54:00:12:34:56,hostfwd=tcp:127.0.0.1:47100-:22
-drive if=none,id=drivers,media=cdrom,readonly=on,file=/pkg/drivers.iso
-device usb-storage,drive=drivers,serial=DORVANEDRIVERS01
-drive if=none,id=shares,format=raw,readonly=on,file.driver=vvfat,file.dir=/r/sh,file.label=DORVANE
-device usb-storage,drive=shares,serial=DORVANESHARES001
-qmp unix:/r/q.sock,server=on,wait=off
-display none
-vnc unix:/r/v.sock
-device virtio-serial-pci
-chardev socket,id=vdagent,path=/r/a.sock,server=on,wait=off
-device virtserialport,chardev=vdagent,name=com.redhat.spice.0
-serial file:/vms/Win 11/console.log
)";
const std::string basicGraphics = "-device virtio-gpu-pci,edid=on,xres=1920,yres=1200\n";
const std::string basicOutput = "-display none\n-vnc unix:/r/v.sock\n";
const std::pair<std::string, std::string> acceleration{
    ",accel=hvf,highmem=on,virtio-mmio-transports=0\n",
    ",highmem=on,virtio-mmio-transports=0\n-accel hvf,ipa-granule-size=0x1000\n"};

TEST(QEMUCommandBuilder, BasicMachine) { EXPECT_EQ(built(windowsConfig(), basicPaths()), basicMachine); }

TEST(QEMUCommandBuilder, AcceleratedMachineWithImagesAndDiagnosticMonitor) {
    auto paths = acceleratedPaths();
    paths.diagnosticMonitorSocket = "/r/diag.sock";
    paths.rdpHostPort = 50000;
    VMAttachments attachments;
    attachments.mountedImages = {"/a.iso", "/b,c.iso"};
    attachments.usbStorageDevices = {"/stick,,1.img"};
    attachments.guestAgentPayloadPath = "/payload";
    EXPECT_EQ(
        built(windowsConfig(), paths, attachments),
        edited(basicMachine,
               {acceleration,
                {basicGraphics,
                 "-device virtio-gpu-gl-pci,edid=on,xres=1920,yres=1200,blob=true,hostmem=8G,neptune=on\n"},
                {"-:22\n", R"(-:22,hostfwd=tcp:127.0.0.1:50000-:3389
-drive if=none,id=iso0,media=cdrom,readonly=on,file=/a.iso
-device usb-storage,drive=iso0,serial=DORVANEISO000000
-drive if=none,id=iso1,media=cdrom,readonly=on,file=/b,,c.iso
-device usb-storage,drive=iso1,serial=DORVANEISO000001
-drive if=none,id=usb0,format=raw,file=/stick,,,,1.img
-device usb-storage,drive=usb0,serial=DORVANEUSB000000
)"},
                {basicOutput, R"(-qmp unix:/r/diag.sock,server=on,wait=off
-qmp unix:/r/d.sock,server=on,wait=off
-display dbus,p2p=on,gl=es
)"}}));
}

TEST(QEMUCommandBuilder, InstallerOnAnAcceleratedMachineStillGetsTheFirmwaresFrameBuffer) {
    auto config = windowsConfig();
    config.audioOutput = false;
    auto paths = acceleratedPaths();
    paths.bootScriptDirectory = "/r/boot";
    VMAttachments attachments;
    attachments.installerImagePath = "/iso/Win,11.iso";
    EXPECT_EQ(
        built(config, paths, attachments),
        edited(basicMachine,
               {acceleration,
                {basicGraphics, "-device ramfb\n"},
                {"-audiodev coreaudio,id=dorvanesnd\n-device intel-hda\n-device "
                 "hda-output,audiodev=dorvanesnd\n",
                 ""},
                {"-:22\n", R"(-:22
-drive if=none,id=bootscript,format=raw,readonly=on,file=fat:floppy:ro:/r/boot
-device usb-storage,drive=bootscript,serial=DORVANEBOOT00001
-drive if=none,id=installer,media=cdrom,readonly=on,file=/iso/Win,,11.iso
-device usb-storage,drive=installer,bootindex=0,serial=DORVANEINSTALL01
)"},
                {basicOutput, "-qmp unix:/r/d.sock,server=on,wait=off\n-display dbus,p2p=on,gl=es\n"}}));
}

TEST(QEMUCommandBuilder, SmallestIsolatedTracedMachineWithCommasInItsPaths) {
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    config.cpuCount = 1;
    config.memoryBytes = 1610612735;
    config.macAddress = "52:54:00:00:00:01";
    config.display = {800, 600, 72};
    config.windowsDisplayDriverMissing = true;
    config.network = NetworkConfig{NetworkConfig::Mode::isolated};
    config.audioInput = true;
    config.audioOutput = false;
    QEMURuntimePaths paths;
    paths.firmwareCode = "/p,/code.fd";
    paths.qmpSocket = "/r,/q.sock";
    paths.vncSocket = "/r,/v.sock";
    paths.vdagentSocket = "/r,/a.sock";
    paths.bootScriptDirectory = "/r,/boot";
    paths.sharesDiskDirectory = "/r,/sh";
    paths.serialLog = "/r,/console.log";
    paths.diagnosticMonitorSocket = "/r,/diag.sock";
    paths.traceEvents = {"nvme*", "usb_xhci,x"};
    paths.traceLog = "/r,/trace.log";
    EXPECT_EQ(built(config, paths, {}, "/v,ms/ a,b "), R"(
-name a,,b
-machine virt,accel=hvf,highmem=on,virtio-mmio-transports=0
-cpu host
-smp 1
-m 1535M
-rtc base=localtime
-drive if=pflash,format=raw,readonly=on,file=/p,,/code.fd
-drive if=pflash,format=qcow2,file=/v,,ms/ a,,b /nvram.qcow2
-drive if=none,id=sysdisk,node-name=sysroot,format=qcow2,cache=writeback,file=/v,,ms/ a,,b /disk.qcow2
-device nvme,drive=sysdisk,serial=dorvane,bootindex=1
-device virtio-gpu-pci,edid=on,xres=800,yres=600
-device qemu-xhci,id=usb,p2=8,p3=8
-device usb-kbd
-device usb-tablet
-nic user,model=virtio-net-pci,mac=52:54:00:00:00:01,restrict=on
-drive if=none,id=shares,format=raw,readonly=on,file.driver=vvfat,file.dir=/r,,/sh,file.label=DORVANE
-device usb-storage,drive=shares,serial=DORVANESHARES001
-qmp unix:/r,,/q.sock,server=on,wait=off
-qmp unix:/r,,/diag.sock,server=on,wait=off
-display none
-vnc unix:/r,,/v.sock
-device virtio-serial-pci
-chardev socket,id=vdagent,path=/r,,/a.sock,server=on,wait=off
-device virtserialport,chardev=vdagent,name=com.redhat.spice.0
-serial file:/r,,/console.log
-trace enable=nvme*
-trace enable=usb_xhci,x
-trace file=/r,,/trace.log
-msg timestamp=on
)");
}

TEST(QEMUCommandBuilder, WhatDecidesAloneWhetherAGroupIsThere) {
    auto config = windowsConfig();
    EXPECT_EQ(built(config, basicPaths(), {}, "/vms/ \t").find("-name Dorvane\n"), 1U);

    config.windowsDisplayDriverMissing = true;
    EXPECT_NE(built(config, acceleratedPaths()).find("-device ramfb\n"), std::string::npos);

    config.network = NetworkConfig{NetworkConfig::Mode::bridged, "en0"};
    auto nat = config;
    nat.network = NetworkConfig{};
    EXPECT_EQ(built(config, basicPaths()), built(nat, basicPaths()));

    auto untraced = basicPaths();
    untraced.traceEvents = {"nvme*"};
    EXPECT_EQ(built(config, untraced), built(config, basicPaths()));
    untraced.traceEvents.clear();
    untraced.traceLog = "/r/trace.log";
    EXPECT_EQ(built(config, untraced), built(config, basicPaths()));
}

TEST(USBStorageSerial, FillsAndCutsToSixteenCharacters) {
    EXPECT_EQ(USBStorageSerial::indexed("DORVANEUSB", 12), "DORVANEUSB000012");
    EXPECT_EQ(USBStorageSerial::indexed("DORVANEUSB", 1234567), "DORVANEUSB123456");
    EXPECT_EQ(USBStorageSerial::indexed("SEVENTEEN-LETTERS", 3), "SEVENTEEN-LETTER");
}

}  // namespace
}  // namespace dorvane
