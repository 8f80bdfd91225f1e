// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxQEMUHostAdapter.h"

#include <algorithm>
#include <array>
#include <functional>

#include "base/Text.h"
#include "qemu/QEMUMachineVersion.h"

namespace dorvane {
namespace {

using Arguments = std::vector<std::string>;

constexpr auto acceleratedDisplayDevice = "virtio-gpu-gl-pci";
constexpr auto basicDisplayDevice = "virtio-gpu-pci";

/// An option's value as its comma-separated parts. A doubled comma is an escaped one and stays inside its
/// part, so that putting the parts together again gives the same text.
Arguments partsOf(std::string_view value) {
    Arguments parts{""};
    while (!value.empty()) {
        const std::size_t count = value.starts_with(",,") ? 2 : 1;
        if (count == 1 && value.front() == ',')
            parts.emplace_back();
        else
            parts.back() += value.substr(0, count);
        value.remove_prefix(count);
    }
    return parts;
}

std::string unescaped(std::string_view value) {
    std::string result;
    while (!value.empty()) {
        result += value.front();
        value.remove_prefix(value.starts_with(",,") ? 2 : 1);
    }
    return result;
}

std::string nameOf(const std::string& part) { return part.substr(0, part.find('=')); }

/// Drops the properties behind the first part that `isKept` refuses.
void keepProperties(Arguments& parts, const std::function<bool(const std::string& name)>& isKept) {
    parts.erase(std::remove_if(parts.begin() + 1, parts.end(),
                               [&](const auto& part) { return !isKept(nameOf(part)); }),
                parts.end());
}

/// One translation of one vector.
class Translation {
  public:
    Translation(const LinuxQEMUHostFacts& facts, const QEMUCapabilities& capabilities)
        : facts_(facts), capabilities_(capabilities) {}

    Arguments translate(const Arguments& arguments) {
        // Every option of the vector has a value.
        for (std::size_t i = 0; i + 1 < arguments.size(); i += 2) translate(arguments[i], arguments[i + 1]);
        if (arguments.size() % 2 != 0) result_.push_back(arguments.back());
        // At its default a save of memory takes three times as long.
        add("-global", "migration.x-max-bandwidth=1T");
        // The firmware's menu otherwise waits for seconds; an installer's boot prompt needs that time.
        if (!hasInstaller_) add("-boot", "menu=on,splash-time=0");
        return std::move(result_);
    }

  private:
    void add(const std::string& option, const std::string& value) {
        result_.push_back(option);
        result_.push_back(value);
    }

    void translate(const std::string& option, const std::string& value) {
        if (option == "-machine") return addMachine(value);
        // The accelerator has been added with the machine.
        if (option == "-accel" && value.starts_with("hvf")) return;
        if (option == "-cpu" && value == "host")
            return add(option, usesKVM() ? "host" : "max,pauth-impdef=on");
        if (option == "-audiodev") return add(option, audioValue(value));
        if (option == "-device") return add(option, deviceValue(value));
        if (option == "-display") return add(option, displayValue(value));
        if (option == "-serial") return add(option, serialValue(value));
        if (option == "-drive" && isInstaller(value)) hasInstaller_ = true;
        add(option, value);
    }

    bool usesKVM() const { return facts_.isARM64 && facts_.canOpenKVM; }

    bool usesGL() const {
        // A device without "hostmem" can't have GL and the blob resources of the command line together.
        return facts_.hasRenderNode && capabilities_.hasDevice(acceleratedDisplayDevice) &&
               capabilities_.mayHaveProperty(acceleratedDisplayDevice, "hostmem");
    }

    void addMachine(const std::string& value) {
        auto parts = partsOf(value);
        parts.front() = machineType(parts.front());
        keepProperties(parts, [this](const auto& name) {
            if (name == "accel") return false;
            return capabilities_.machineProperties.empty() || capabilities_.machineProperties.contains(name);
        });
        add("-machine", joined(parts, ","));
        add("-accel", usesKVM() ? "kvm" : "tcg,thread=multi");
    }

    std::string machineType(const std::string& wanted) const {
        const auto version = QEMUMachineVersion::parse(wanted);
        if (!version || capabilities_.machineTypes.empty()) return wanted;
        const auto& newest = capabilities_.machineTypes.front();
        return *version > QEMUMachineVersion::parse(newest) ? newest : wanted;
    }

    std::string audioValue(const std::string& value) const {
        auto parts = partsOf(value);
        if (parts.front() == "coreaudio") parts.front() = audioDriver();
        return joined(parts, ",");
    }

    std::string audioDriver() const {
        const std::array<std::pair<const char*, bool>, 3> preferred{
            {{"pipewire", facts_.hasPipeWire}, {"pa", facts_.hasPulseAudio}, {"alsa", facts_.hasALSA}}};
        for (const auto& [name, isThere] : preferred)
            if (isThere && capabilities_.audioDrivers.contains(name)) return name;
        return "none";
    }

    std::string deviceValue(const std::string& value) const {
        auto parts = partsOf(value);
        if (parts.front() == acceleratedDisplayDevice && !usesGL()) {
            parts.front() = basicDisplayDevice;
            keepProperties(
                parts, [](const auto& name) { return name == "edid" || name == "xres" || name == "yres"; });
        }
        keepProperties(parts, [&](const auto& name) {
            return name == "id" || capabilities_.mayHaveProperty(parts.front(), name);
        });
        return joined(parts, ",");
    }

    std::string displayValue(const std::string& value) const {
        auto parts = partsOf(value);
        keepProperties(parts, [this](const auto& name) { return name != "gl" || usesGL(); });
        return joined(parts, ",");
    }

    /// QEMU takes what follows "file:" here as it stands, so that a doubled comma would be part of the name.
    static std::string serialValue(const std::string& value) {
        return value.starts_with("file:") ? unescaped(value) : value;
    }

    static bool isInstaller(const std::string& drive) {
        const auto parts = partsOf(drive);
        return std::find(parts.begin(), parts.end(), "id=installer") != parts.end();
    }

    const LinuxQEMUHostFacts& facts_;
    const QEMUCapabilities& capabilities_;
    Arguments result_;
    bool hasInstaller_ = false;
};

}  // namespace

std::vector<std::string> LinuxQEMUHostAdapter::adapt(std::vector<std::string> arguments,
                                                     const QEMUCapabilities& capabilities) const {
    return Translation(facts_, capabilities).translate(arguments);
}

}  // namespace dorvane
