// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxQEMUHostFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "runtime/FileDescriptor.h"

namespace dorvane {
namespace {

bool canOpen(const Path& device) {
    return static_cast<bool>(FileDescriptor(::open(device.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK)));
}

bool isAccessible(const Path& path) { return ::access(path.c_str(), R_OK | W_OK) == 0; }

bool anyEntry(const Path& directory, const std::function<bool(const Path&)>& condition) {
    std::error_code failure;
    for (const auto& entry : std::filesystem::directory_iterator(directory, failure))
        if (condition(entry.path())) return true;
    return false;
}

bool isPlaybackDevice(const Path& path) {
    const auto name = path.filename().string();
    return name.starts_with("pcm") && name.ends_with("p") && isAccessible(path);
}

bool isRenderNode(const Path& path) {
    return path.filename().string().starts_with("renderD") && canOpen(path);
}

/// The session's socket of that name, or a server that the variable names.
bool hasServer(const Environment& environment, const char* variable, const Path& socketName) {
    if (const auto named = environment.find(variable); named != environment.end() && !named->second.empty())
        return true;
    const auto runtime = environment.find("XDG_RUNTIME_DIR");
    return runtime != environment.end() && isAccessible(Path(runtime->second) / socketName);
}

}  // namespace

LinuxQEMUHostFacts LinuxQEMUHostFacts::probe(const Environment& environment, const Path& devices) {
    LinuxQEMUHostFacts facts;
#if defined(__aarch64__)
    facts.isARM64 = true;
#endif
    facts.canOpenKVM = canOpen(devices / "kvm");
    facts.hasRenderNode = anyEntry(devices / "dri", isRenderNode);
    facts.hasPipeWire = hasServer(environment, "PIPEWIRE_REMOTE", "pipewire-0");
    facts.hasPulseAudio = hasServer(environment, "PULSE_SERVER", "pulse/native");
    facts.hasALSA = anyEntry(devices / "snd", isPlaybackDevice);
    return facts;
}

}  // namespace dorvane
