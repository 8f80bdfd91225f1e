// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"
#include "core/VMBundle.h"
#include "runtime/Logger.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

const Logger logger("VMBundle");

constexpr std::size_t stagingDigits = 8;

/// Calls `visit` with the name of each directory in the folder. Symbolic links are no directories here:
/// nothing outside the folder is listed or removed through one.
template <typename Visit>
void forEachDirectory(const Path& folder, const Visit& visit) {
    std::error_code failure;
    fs::directory_iterator entry(folder, failure);
    for (; !failure && entry != fs::directory_iterator(); entry.increment(failure)) {
        std::error_code unreadable;
        if (entry->symlink_status(unreadable).type() == fs::file_type::directory)
            visit(entry->path().filename().string());
    }
    if (failure) throw FileError("list", folder, failure.value());
}

bool isHidden(const std::string& name) { return name.front() == '.'; }

/// Whether the name ends in ".restoring-" or ".importing-" and eight hexadecimal digits.
bool isStagingName(std::string_view name) {
    if (name.size() < stagingDigits) return false;
    const auto digits = name.substr(name.size() - stagingDigits);
    const auto stem = name.substr(0, name.size() - stagingDigits);
    return std::all_of(digits.begin(), digits.end(), isASCIIHexDigit) &&
           (stem.ends_with(".restoring-") || stem.ends_with(".importing-"));
}

/// What a restore from a backup unpacks into: a name of its own, around the machine's directory.
bool isRestoreStaging(const Path& directory, std::string_view name) {
    constexpr std::string_view prefix = "Dorvane-Restore-";
    return name.starts_with(prefix) && UUID::parse(name.substr(prefix.size())) &&
           !fileExists(VMBundle(directory).configFile());
}

}  // namespace

std::vector<VMBundle> VMBundle::scanBundles(const Path& storagePath) {
    std::vector<std::string> names;
    forEachDirectory(storagePath, [&](std::string name) {
        if (isHidden(name)) return;
        if (!isValidUTF8(name)) {
            // It could stand neither in the library nor in any answer, both of which are Unicode text.
            logger.error("Skipping a folder whose name is not UTF-8: %{public}s",
                         repairedUTF8(asBytes(name)));
            return;
        }
        const VMBundle bundle(storagePath / name);
        if (bundle.isValid() && !fileExists(bundle.installingMarker())) names.push_back(std::move(name));
    });
    // A folder that went away meanwhile looks empty, which it must not be taken for.
    if (std::error_code gone; !fs::is_directory(storagePath, gone))
        throw FileError("list", storagePath, gone ? gone.value() : ENOTDIR);
    std::stable_sort(names.begin(), names.end(), precedesNaturally);
    std::vector<VMBundle> bundles;
    bundles.reserve(names.size());
    for (const auto& name : names) bundles.emplace_back(storagePath / name);
    return bundles;
}

std::vector<VMBundle> VMBundle::discoverBundles(const Path& storagePath) {
    try {
        return scanBundles(storagePath);
    } catch (const FileError& error) {
        logger.error("Could not list storage path %{public}s: %{public}s", storagePath.string(),
                     error.what());
        return {};
    }
}

std::vector<Path> VMBundle::sweepInterruptedWork(const Path& storagePath) {
    std::vector<Path> doomed;
    forEachDirectory(storagePath, [&](const std::string& name) {
        const auto directory = storagePath / name;
        if (isHidden(name)
                ? isStagingName(name)
                : isRestoreStaging(directory, name) || fileExists(VMBundle(directory).installingMarker()))
            doomed.push_back(directory);
    });
    std::vector<Path> removed;
    for (const auto& directory : doomed) {
        std::error_code failure;
        fs::remove_all(directory, failure);
        if (failure)
            logger.error("Could not remove interrupted work at %{public}s: %{public}s", directory.string(),
                         errnoText(failure.value()));
        else
            removed.push_back(directory);
    }
    return removed;
}

}  // namespace dorvane
