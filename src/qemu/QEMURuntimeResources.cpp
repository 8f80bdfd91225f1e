// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMURuntimeResources.h"

#include "base/Text.h"
#include "runtime/Logger.h"

namespace dorvane {
namespace {

void replace(Path& resource, const Environment& environment, const char* variable) {
    if (const auto found = environment.find(variable); found != environment.end()) resource = found->second;
}

void replaceOptional(std::optional<Path>& resource, const Environment& environment, const char* variable) {
    if (const auto found = environment.find(variable); found != environment.end()) resource = found->second;
    if (resource && !fileExists(*resource)) resource.reset();
}

/// Empty when it can't be read: QEMU may do without.
std::string packageEnvironmentText(const Path& file) {
    constexpr std::size_t limit = 1 << 20;
    if (!fileExists(file)) return {};
    try {
        return readTextFile(file, limit);
    } catch (const FileError& error) {
        Logger("QEMURuntimeResources").error("%{public}s", error.what());
        return {};
    }
}

/// KEY=VALUE lines of the file that a package carries beside "Helpers".
Environment packageEnvironment(const Path& executable) {
    const auto file = executable.parent_path().parent_path() / "environment";
    Environment result;
    for (const auto& line : split(packageEnvironmentText(file), '\n'))
        if (const auto equals = line.find('='); equals != std::string::npos && equals > 0)
            result.emplace(line.substr(0, equals), line.substr(equals + 1));
    return result;
}

}  // namespace

QEMURuntimeResources QEMURuntimeResources::packaged(const Path& root) {
    const auto helpers = root / "Helpers";
    const auto resources = root / "Resources" / "qemu";
    return {.executable = helpers / "qemu-system-aarch64",
            .imageTool = helpers / "qemu-img",
            .firmwareCode = resources / "secboot-code.fd",
            .nvramTemplate = resources / "secboot-vars.fd",
            .swtpm = helpers / "swtpm",
            .dataDirectory = resources / "share",
            .guestDrivers = resources / "drivers.iso",
            .renderServer = helpers / "virgl_render_server",
            .environment = {}};
}

QEMURuntimeResources QEMURuntimeResources::systemInstalled(const Path& root) {
    const auto programs = root / "usr" / "bin";
    const auto firmware = root / "usr" / "share" / "AAVMF";
    return {.executable = programs / "qemu-system-aarch64",
            .imageTool = programs / "qemu-img",
            .firmwareCode = firmware / "AAVMF_CODE.ms.fd",
            .nvramTemplate = firmware / "AAVMF_VARS.ms.fd",
            .swtpm = programs / "swtpm",
            .dataDirectory = std::nullopt,
            .guestDrivers = std::nullopt,
            .renderServer = std::nullopt,
            .environment = {}};
}

std::optional<QEMURuntimeResources> QEMURuntimeResources::locate(
    const std::vector<QEMURuntimeResources>& candidates, const Environment& environment) {
    for (auto found : candidates) {
        const auto own = found.executable;
        replace(found.executable, environment, "DORVANE_QEMU_BIN");
        replace(found.firmwareCode, environment, "DORVANE_QEMU_FIRMWARE");
        replace(found.nvramTemplate, environment, "DORVANE_QEMU_NVRAM");
        if (!fileExists(found.executable) || !fileExists(found.firmwareCode) ||
            !fileExists(found.nvramTemplate))
            continue;
        found.imageTool = found.executable.parent_path() / "qemu-img";
        replaceOptional(found.swtpm, environment, "DORVANE_QEMU_SWTPM");
        replaceOptional(found.dataDirectory, environment, "DORVANE_QEMU_DATA");
        replaceOptional(found.guestDrivers, environment, "DORVANE_QEMU_DRIVERS");
        replaceOptional(found.renderServer, environment, "DORVANE_QEMU_RENDER_SERVER");
        // A developer's own emulator looks for its modules by itself.
        if (found.executable == own) found.environment = packageEnvironment(own);
        return found;
    }
    return std::nullopt;
}

}  // namespace dorvane
