// SPDX-License-Identifier: Apache-2.0
// The demo guest under a QEMU of the test's own, with a screen on a VNC socket and a serial log.
#pragma once

#include "qemu_tools/RealQEMU.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class DemoGuest {
  public:
    void kill() { qemu_.end(); }
    std::string displaySocket() const { return in("v.sock"); }
    std::string serialLog() const {
        try {
            return readTextFile(in("serial.log"));
        } catch (const FileError&) {
            return {};
        }
    }
    bool hasSaid(std::string_view text) const { return serialLog().find(text) != std::string::npos; }

  private:
    std::string in(const std::string& name) const { return (folder_ / name).string(); }
    std::vector<std::string> arguments() const {
        const auto resources = realQEMU();
        std::filesystem::copy_file(resources.nvramTemplate, in("vars.fd"));
        imageTool(
            {"create", "-q", "-f", "qcow2", "-F", "qcow2", "-b", demoDisk().string(), in("disk.qcow2")});
        auto all = split(
            "-machine virt -accel tcg,thread=multi -cpu max,pauth-impdef=on -smp 2 -m 1024 -nodefaults "
            "-display none -device nvme,drive=disk,serial=demo -device virtio-gpu-pci,xres=1440,yres=900 "
            "-device qemu-xhci -device usb-kbd -device usb-tablet -boot menu=on,splash-time=0",
            ' ');
        for (const auto& drive :
             {"if=pflash,format=raw,readonly=on,file=" + resources.firmwareCode.string(),
              "if=pflash,format=raw,file=" + in("vars.fd"), "if=none,id=disk,file=" + in("disk.qcow2")})
            all.insert(all.end(), {"-drive", drive});
        all.insert(all.end(), {"-vnc", "unix:" + displaySocket(), "-serial", "file:" + in("serial.log")});
        return all;
    }

    TemporaryDirectory folder_;
    RealQEMUChild qemu_{arguments()};
};

}  // namespace dorvane::test
