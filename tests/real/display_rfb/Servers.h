// SPDX-License-Identifier: Apache-2.0
// The two VNC servers of these tests: an X server with programs on its screen, and QEMU with a screen that
// the test itself draws.
#pragma once

#include <fstream>

#include "display/rfb/PixelTarget.h"
#include "qemu_tools/RealQEMU.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

/// An X server that shows its screen over VNC.
class XvncServer {
  public:
    XvncServer() {
        if (display_ == ":") throw std::runtime_error("the X server has ended");
    }

    std::string socket() const { return (folder_ / "x.sock").string(); }
    /// What `bench/rfb/scene` draws; on the screen until the object goes.
    std::unique_ptr<Child> show(const std::string& scene) const {
        ProcessCommand command{Path(DORVANE_SOURCE_DIR) / "bench" / "rfb" / "scene",
                               {scene, (folder_ / "rest").string()}};
        command.environment = currentEnvironment();
        (*command.environment)["DISPLAY"] = display_;
        return std::make_unique<Child>(command);
    }
    /// From now on nothing moves; what is drawn stays.
    void rest() const { std::ofstream(folder_ / "rest"); }

  private:
    TemporaryDirectory folder_;
    Child server_{{.executable = "/usr/bin/Xvnc",
                   .arguments = {"-displayfd", "1", "-rfbunixpath", socket(), "-rfbport", "-1", "-geometry",
                                 "1000x700", "-depth", "24", "-SecurityTypes", "None", "-nolisten", "tcp"},
                   .standardOutput = StandardStream::pipe}};
    /// The server chooses a free one and says so when it is ready.
    std::string display_ = ":" + readLine(server_.process().takeStandardOutput());
};

/// QEMU with a board whose display controller shows a piece of memory as it is. No guest runs: the test
/// writes the controller's registers and the pixels itself, so it knows what every pixel has to be.
class QEMUScreen {
  public:
    static constexpr int width = 1024, height = 768;

    QEMUScreen() {
        // Timing for 1024 columns and 768 rows, the place in memory, power and 32 bits a pixel, blue first.
        for (const auto& [address, value] : {std::pair{0x10120000u, 0xFCu},
                                             {0x10120004u, unsigned(height - 1)},
                                             {0x10120010u, memory},
                                             {0x10120018u, 0x90Bu}})
            tell(fmt::format("writel {:#x} {:#x}", address, value));
        draw(0, 0, width, height, [](int, int) { return 0u; });
    }

    std::string socket() const { return (folder_ / "v.sock").string(); }
    /// Sets pixels by their place on the screen, as 0xRRGGBB.
    template <typename Pixel>
    void draw(int left, int top, int columns, int rows, Pixel pixel) {
        for (int y = top; y < top + rows; ++y) {
            std::string line = fmt::format("write {:#x} {:#x} 0x", memory + 4u * unsigned(y * width + left),
                                           unsigned(columns) * 4);
            for (int x = left; x < left + columns; ++x) {
                const std::uint32_t value = pixel(x, y);
                storePixel(&pixels_[std::size_t(y * width + x) * 4], value);
                line += fmt::format("{:02x}{:02x}{:02x}00", value & 0xFF, value >> 8 & 0xFF, value >> 16);
            }
            tell(line);
        }
    }
    /// What the screen has to show.
    const Bytes& pixels() const { return pixels_; }

  private:
    static constexpr unsigned memory = 0x200000;

    static ProcessCommand command(const std::string& socket) {
        auto command = emulator({"-M", "versatilepb,audiodev=none", "-audiodev", "none,id=none", "-accel",
                                 "qtest", "-qtest", "stdio", "-qtest-log", "none", "-nic", "none", "-display",
                                 "none", "-vnc", "unix:" + socket});
        command.standardInput = command.standardOutput = StandardStream::pipe;
        return command;
    }
    void tell(const std::string& order) {
        const auto line = order + "\n";
        if (::write(input_.get(), line.data(), line.size()) != ssize_t(line.size()))
            throw POSIXError("QEMU doesn't listen", errno);
        if (const auto answer = readLine(answers_); answer != "OK")
            throw std::runtime_error("QEMU says: " + answer);
    }

    TemporaryDirectory folder_;
    Child qemu_{command(socket())};
    FileDescriptor input_ = qemu_.process().takeStandardInput();
    FileDescriptor answers_ = qemu_.process().takeStandardOutput();
    Bytes pixels_ = Bytes(std::size_t(width) * height * 4);
};

}  // namespace dorvane::test
