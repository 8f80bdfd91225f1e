// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUCommandBuilder.h"

#include "base/Text.h"
#include "qemu/USBStorageSerial.h"

namespace dorvane {
namespace {

using Arguments = std::vector<std::string>;

/// The groups of one vector. Each function appends what its inputs ask for; `build` alone knows the order.
class Vector {
  public:
    Vector(const DorvaneVMConfig& config, const VMBundle& bundle, const VMAttachments& attachments,
           const QEMURuntimePaths& paths)
        : config_(config), bundle_(bundle), attachments_(attachments), paths_(paths) {}

    Arguments build() {
        addName();
        addMachine();
        addProcessorAndMemory();
        addFirmwareAndSystemDisk();
        addTPM();
        addDisplayDevice();
        addInput();
        addAudio();
        add("-nic", networkValue());
        addInstaller();
        addImages();
        addHelperDisks();
        addMonitors();
        addDisplayOutput();
        addAgentPort();
        if (paths_.serialLog) add("-serial", "file:" + escapedPath(*paths_.serialLog));
        addTracing();
        return std::move(arguments_);
    }

  private:
    void add(std::string option, std::string value) {
        arguments_.push_back(std::move(option));
        arguments_.push_back(std::move(value));
    }
    static std::string escapedPath(const Path& path) { return QEMUCommandBuilder::escaped(path.string()); }
    bool isAccelerated() const { return paths_.displayMonitorSocket.has_value(); }
    bool hasInstaller() const { return attachments_.installerImagePath.has_value(); }

    void addName() {
        const auto directoryName = bundle_.name();
        const auto name = trimmed(directoryName);
        add("-name", name.empty() ? "Dorvane" : QEMUCommandBuilder::escaped(name));
    }

    void addMachine() {
        const std::string type = config_.windowsPlatform ? config_.windowsPlatform->machineType : "virt";
        const auto* accelerator = isAccelerated() ? "" : ",accel=hvf";
        add("-machine", type + accelerator + ",highmem=on,virtio-mmio-transports=0");
        if (isAccelerated()) add("-accel", "hvf,ipa-granule-size=0x1000");
        if (paths_.dataDirectory) add("-L", paths_.dataDirectory->string());
    }

    void addProcessorAndMemory() {
        add("-cpu", "host");
        add("-smp", std::to_string(config_.cpuCount));
        add("-m", std::to_string(config_.memoryBytes >> 20) + "M");
        add("-rtc", "base=localtime");
    }

    void addFirmwareAndSystemDisk() {
        add("-drive", "if=pflash,format=raw,readonly=on,file=" + escapedPath(paths_.firmwareCode));
        add("-drive", "if=pflash,format=qcow2,file=" + escapedPath(bundle_.nvram()));
        add("-drive", "if=none,id=sysdisk,node-name=sysroot,format=qcow2,cache=writeback,file=" +
                          escapedPath(paths_.systemDiskPath.value_or(bundle_.qcow2Disk())));
        add("-device", "nvme,drive=sysdisk,serial=dorvane,bootindex=1");
    }

    void addTPM() {
        if (!paths_.swtpmSocket) return;
        add("-chardev", "socket,id=chrtpm,path=" + escapedPath(*paths_.swtpmSocket));
        add("-tpmdev", "emulator,id=tpm0,chardev=chrtpm");
        add("-device", "tpm-tis-device,tpmdev=tpm0,ppi=off");
    }

    /// A guest without a driver of its own, an installer's among them, only has the firmware's frame buffer.
    void addDisplayDevice() {
        const bool driverMissing =
            config_.os == VMOSType::windows && config_.windowsDisplayDriverMissing.value_or(false);
        if (hasInstaller() || driverMissing) {
            add("-device", "ramfb");
            return;
        }
        const auto size = ",edid=on,xres=" + std::to_string(config_.display.widthInPixels) +
                          ",yres=" + std::to_string(config_.display.heightInPixels);
        add("-device", isAccelerated() ? "virtio-gpu-gl-pci" + size + ",blob=true,hostmem=8G,neptune=on"
                                       : "virtio-gpu-pci" + size);
    }

    void addInput() {
        add("-device", "qemu-xhci,id=usb,p2=8,p3=8");
        add("-device", "usb-kbd");
        add("-device", "usb-tablet");
    }

    void addAudio() {
        if (!config_.audioOutput.value_or(true)) return;
        add("-audiodev", "coreaudio,id=dorvanesnd");
        add("-device", "intel-hda");
        add("-device", "hda-output,audiodev=dorvanesnd");
    }

    std::string networkValue() const {
        Arguments parts{"user", "model=virtio-net-pci", "mac=" + config_.macAddress};
        if (config_.network && config_.network->mode == NetworkConfig::Mode::isolated)
            parts.emplace_back("restrict=on");
        const auto forward = [&parts](const std::optional<int>& hostPort, const std::string& guestPort) {
            if (hostPort)
                parts.push_back("hostfwd=tcp:127.0.0.1:" + std::to_string(*hostPort) + "-:" + guestPort);
        };
        forward(paths_.sshHostPort, "22");
        forward(paths_.rdpHostPort, "3389");
        return joined(parts, ",");
    }

    void addUSBStorage(const std::string& driveValue, const std::string& deviceValue) {
        add("-drive", driveValue);
        add("-device", "usb-storage," + deviceValue);
    }

    void addInstaller() {
        if (!hasInstaller()) return;
        if (paths_.bootScriptDirectory)
            addUSBStorage("if=none,id=bootscript,format=raw,readonly=on,file=fat:floppy:ro:" +
                              escapedPath(*paths_.bootScriptDirectory),
                          "drive=bootscript,serial=DORVANEBOOT00001");
        addUSBStorage("if=none,id=installer,media=cdrom,readonly=on,file=" +
                          QEMUCommandBuilder::escaped(*attachments_.installerImagePath),
                      "drive=installer,bootindex=0,serial=DORVANEINSTALL01");
    }

    void addImages() {
        for (std::size_t i = 0; i < attachments_.mountedImages.size(); ++i) {
            const auto id = "iso" + std::to_string(i);
            addUSBStorage("if=none,id=" + id + ",media=cdrom,readonly=on,file=" +
                              QEMUCommandBuilder::escaped(attachments_.mountedImages[i]),
                          "drive=" + id + ",serial=" + USBStorageSerial::indexed("DORVANEISO", i));
        }
        for (std::size_t i = 0; i < attachments_.usbStorageDevices.size(); ++i) {
            const auto id = "usb" + std::to_string(i);
            addUSBStorage("if=none,id=" + id + ",format=raw,file=" +
                              QEMUCommandBuilder::escaped(attachments_.usbStorageDevices[i]),
                          "drive=" + id + ",serial=" + USBStorageSerial::indexed("DORVANEUSB", i));
        }
    }

    void addHelperDisks() {
        if (paths_.guestDriversImage)
            addUSBStorage(
                "if=none,id=drivers,media=cdrom,readonly=on,file=" + escapedPath(*paths_.guestDriversImage),
                "drive=drivers,serial=DORVANEDRIVERS01");
        if (paths_.sharesDiskDirectory)
            addUSBStorage("if=none,id=shares,format=raw,readonly=on,file.driver=vvfat,file.dir=" +
                              escapedPath(*paths_.sharesDiskDirectory) + ",file.label=DORVANE",
                          "drive=shares,serial=DORVANESHARES001");
    }

    void addMonitor(const Path& socket) {
        add("-qmp", "unix:" + escapedPath(socket) + ",server=on,wait=off");
    }

    void addMonitors() {
        addMonitor(paths_.qmpSocket);
        if (paths_.diagnosticMonitorSocket) addMonitor(*paths_.diagnosticMonitorSocket);
        if (paths_.displayMonitorSocket) addMonitor(*paths_.displayMonitorSocket);
    }

    void addDisplayOutput() {
        add("-display", isAccelerated() ? "dbus,p2p=on,gl=es" : "none");
        if (paths_.vncSocket) add("-vnc", "unix:" + escapedPath(*paths_.vncSocket));
    }

    void addAgentPort() {
        if (!paths_.vdagentSocket) return;
        add("-device", "virtio-serial-pci");
        add("-chardev",
            "socket,id=vdagent,path=" + escapedPath(*paths_.vdagentSocket) + ",server=on,wait=off");
        add("-device", "virtserialport,chardev=vdagent,name=com.redhat.spice.0");
    }

    void addTracing() {
        if (paths_.traceEvents.empty() || !paths_.traceLog) return;
        for (const auto& event : paths_.traceEvents) add("-trace", "enable=" + event);
        add("-trace", "file=" + escapedPath(*paths_.traceLog));
        add("-msg", "timestamp=on");
    }

    const DorvaneVMConfig& config_;
    const VMBundle& bundle_;
    const VMAttachments& attachments_;
    const QEMURuntimePaths& paths_;
    Arguments arguments_;
};

}  // namespace

std::vector<std::string> QEMUCommandBuilder::buildArguments(const DorvaneVMConfig& config,
                                                            const VMBundle& bundle,
                                                            const VMAttachments& attachments,
                                                            const QEMURuntimePaths& paths) {
    return Vector(config, bundle, attachments, paths).build();
}

std::string QEMUCommandBuilder::escaped(std::string_view value) {
    std::string result;
    for (const char c : value) {
        if (c == ',') result += ',';
        result += c;
    }
    return result;
}

}  // namespace dorvane
