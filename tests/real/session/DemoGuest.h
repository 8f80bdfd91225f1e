// SPDX-License-Identifier: Apache-2.0
// The demo guest under a QEMU of the test's own, with a screen on a VNC socket and a serial log.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/Text.h"
#include "runtime/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class DemoGuest {
  public:
    DemoGuest() {
        const auto disk = outputOf({scripts() / "demo-guest"});
        const Path runtime = outputOf({scripts() / "qemu-runtime"});
        const auto resources = runtime / "Resources" / "qemu";
        std::filesystem::copy_file(resources / "secboot-vars.fd", folder_ / "vars.fd");
        outputOf(
            {runtime / "Helpers" / "qemu-img",
             {"create", "-q", "-f", "qcow2", "-F", "qcow2", "-b", disk, (folder_ / "disk.qcow2").string()}});
        ProcessCommand command{runtime / "Helpers" / "qemu-system-aarch64", arguments(resources)};
        command.standardError = StandardStream::inherit;
        process_ = ChildProcess::start(command);
    }
    DemoGuest(const DemoGuest&) = delete;
    DemoGuest& operator=(const DemoGuest&) = delete;
    ~DemoGuest() { kill(); }

    void kill() {
        process_->kill();
        process_->waitBlocking();
    }
    std::string displaySocket() const { return (folder_ / "v.sock").string(); }
    bool isRunning() const { return process_->isRunning(); }
    std::string serialLog() const {
        try {
            return readTextFile(folder_ / "serial.log");
        } catch (const FileError&) {
            return {};
        }
    }
    bool hasSaid(std::string_view text) const { return serialLog().find(text) != std::string::npos; }

  private:
    static Path scripts() { return Path(DORVANE_SOURCE_DIR) / "scripts"; }

    /// The last line of what a program prints.
    static std::string outputOf(ProcessCommand command) {
        command.standardOutput = StandardStream::pipe;
        command.standardError = StandardStream::inherit;
        const auto program = command.executable;
        const auto output = runBlocking(std::move(command));
        if (!output.status.isSuccess()) throw std::runtime_error(program.string() + " failed");
        const auto text = trimmed(asText(output.standardOutput));
        return std::string(text.substr(text.rfind('\n') + 1));
    }

    std::vector<std::string> arguments(const Path& resources) const {
        const auto pflash = [](const Path& file, const std::string& options) {
            return "if=pflash,format=raw," + options + "file=" + file.string();
        };
        return {"-machine",
                "virt",
                "-accel",
                "tcg,thread=multi",
                "-cpu",
                "max,pauth-impdef=on",
                "-smp",
                "2",
                "-m",
                "1024",
                "-nodefaults",
                "-display",
                "none",
                "-vnc",
                "unix:" + displaySocket(),
                "-drive",
                pflash(resources / "secboot-code.fd", "readonly=on,"),
                "-drive",
                pflash(folder_ / "vars.fd", ""),
                "-drive",
                "if=none,id=disk,file=" + (folder_ / "disk.qcow2").string(),
                "-device",
                "nvme,drive=disk,serial=demo",
                "-device",
                "virtio-gpu-pci,xres=1440,yres=900",
                "-device",
                "qemu-xhci",
                "-device",
                "usb-kbd",
                "-device",
                "usb-tablet",
                "-boot",
                "menu=on,splash-time=0",
                "-serial",
                "file:" + (folder_ / "serial.log").string()};
    }

    TemporaryDirectory folder_;
    std::shared_ptr<ChildProcess> process_;
};

}  // namespace dorvane::test
