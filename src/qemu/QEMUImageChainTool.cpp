// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUImageChainTool.h"

#include "base/Text.h"
#include "core/DorvaneError.h"
#include "runtime/ChildProcess.h"

namespace dorvane {
namespace {

DorvaneError failed(const std::string& reason) {
    return DorvaneError(DorvaneError::Case::vmSnapshotFailed, reason);
}

DorvaneError unreadableLayout() { return failed(localized("Could not read the disk image layout.")); }

std::vector<std::string> rebaseArguments(std::vector<std::string> start, const Path& image,
                                         const std::optional<std::string>& backingPath) {
    start.insert(start.end(), {"-f", "qcow2", "-b", backingPath.value_or("")});
    if (backingPath) start.insert(start.end(), {"-B", "qcow2"});
    start.push_back(image.string());
    return start;
}

}  // namespace

std::optional<QEMUImageChainTool> QEMUImageChainTool::locate(
    const std::optional<QEMURuntimeResources>& resources) {
    if (!resources || !std::filesystem::exists(resources->imageTool)) return std::nullopt;
    return QEMUImageChainTool(resources->imageTool);
}

std::optional<std::string> QEMUImageChainTool::backingPath(const Path& image) const {
    const auto layout = info(image);
    const auto name = layout.find("backing-filename");
    if (name == layout.end() || !name->is_string()) return std::nullopt;
    return name->get<std::string>();
}

void QEMUImageChainTool::createOverlay(const Path& overlay, const std::string& backingPath) const {
    run({"create", "-q", "-f", "qcow2", "-b", backingPath, "-B", "qcow2", overlay.string()});
}

std::uint64_t QEMUImageChainTool::virtualSize(const Path& image) const {
    const auto layout = info(image);
    const auto size = layout.find("virtual-size");
    if (size == layout.end()) throw unreadableLayout();
    try {
        return jsonValue<std::uint64_t>(*size, "virtual-size");
    } catch (const JSONError&) {
        throw unreadableLayout();
    }
}

void QEMUImageChainTool::createOverlayWithoutOpeningBacking(const Path& overlay,
                                                            const std::string& backingPath,
                                                            std::uint64_t virtualSizeBytes) const {
    run({"create", "-q", "-u", "-f", "qcow2", "-b", backingPath, "-B", "qcow2", overlay.string(),
         std::to_string(virtualSizeBytes)});
}

void QEMUImageChainTool::retargetBackingUnsafe(const Path& image,
                                               const std::optional<std::string>& backingPath) const {
    run(rebaseArguments({"rebase", "-q", "-u"}, image, backingPath));
}

void QEMUImageChainTool::rebase(const Path& image, const std::optional<std::string>& backingPath) const {
    logger_.info("Rebasing %{public}s onto %{public}s", image.string(), backingPath.value_or("(none)"));
    run(rebaseArguments({"rebase", "-q"}, image, backingPath));
}

void QEMUImageChainTool::commit(const Path& overlay) const {
    logger_.info("Committing %{public}s into its backing file", overlay.string());
    run({"commit", "-q", "-f", "qcow2", overlay.string()});
}

void QEMUImageChainTool::resize(const Path& image, std::uint64_t sizeBytes) const {
    logger_.info("Resizing %{public}s to %{public}llu bytes", image.string(), sizeBytes);
    run({"resize", "-q", "-f", "qcow2", image.string(), std::to_string(sizeBytes)});
}

std::string QEMUImageChainTool::run(std::vector<std::string> arguments) const {
    if (!std::filesystem::exists(imageTool_))
        throw failed(localized("The disk image tool is missing from this build."));
    const auto subcommand = arguments.front();
    const auto output = runBlocking({imageTool_, std::move(arguments)});
    if (output.status.isSuccess()) {
        const auto text = asText(output.standardOutput);
        return isValidUTF8(text) ? std::string(text) : std::string();
    }
    const auto repaired = repairedUTF8(output.standardError);
    const std::string words(trimmed(repaired));
    logger_.error("qemu-img %{public}s failed: %{public}s", subcommand, words);
    throw failed(localized("The disk image tool failed: %@", words));
}

JSON QEMUImageChainTool::info(const Path& image) const {
    const auto text = run({"info", "-U", "--output=json", image.string()});
    try {
        auto layout = parseJSON(text);
        if (layout.is_object()) return layout;
    } catch (const JSONError&) {
        // Told below, as for a value that is no object.
    }
    throw unreadableLayout();
}

}  // namespace dorvane
