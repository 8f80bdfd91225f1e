// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxDefaultsStore.h"

#include "platform/linux/SetAside.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumSettingsBytes = 16 << 20;

/// A settings file that is a link stays one: what it points to is replaced.
Path linkTarget(const Path& file) {
    std::error_code failure;
    auto target = std::filesystem::canonical(file, failure);
    return failure ? file : target;
}

}  // namespace

LinuxDefaultsStore::LinuxDefaultsStore(Path file) : file_(linkTarget(file)) { load(); }

void LinuxDefaultsStore::load() {
    try {
        auto stored = parseJSON(readTextFile(file_, maximumSettingsBytes));
        if (!stored.is_object()) throw JSONError("The settings are not a JSON object.");
        values_ = std::move(stored);
    } catch (const FileError& error) {
        if (error.number() != ENOENT) refuse(error.number());
    } catch (const JSONError& error) {
        startOver(error.what());
    }
}

void LinuxDefaultsStore::refuse(int number) {
    loadError_ = number;
    problem_ =
        localized("The settings in %@ could not be read (%@). Defaults are used, and changes are not kept.",
                  file_.string(), errnoText(number));
    logger_.error("%{public}s", *problem_);
}

void LinuxDefaultsStore::startOver(const std::string& reason) {
    try {
        const auto aside = setAside(file_);
        problem_ = localized(
            "The settings file was damaged, so Dorvane started with default settings. The damaged "
            "file was kept as %@.",
            aside.string());
        logger_.error("%{public}s is damaged and was kept as %{public}s: %{public}s", file_.string(),
                      aside.string(), reason);
    } catch (const FileError& error) {
        refuse(error.number());
    }
}

JSON LinuxDefaultsStore::value(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    return found == values_.end() ? JSON() : *found;
}

void LinuxDefaultsStore::set(const std::string& key, JSON value) {
    {
        const std::lock_guard lock(mutex_);
        if (loadError_ != 0) throw FileError("write", file_, loadError_);
        auto values = values_;
        if (value.is_null())
            values.erase(key);
        else
            values[key] = std::move(value);
        if (values == values_) return;
        std::error_code ignored;  // the write below says what is wrong
        std::filesystem::create_directories(file_.parent_path(), ignored);
        writeFileAtomically(file_, prettyJSON(values) + "\n", 0600);
        values_ = std::move(values);
    }
    changed(key);
}

std::vector<std::string> LinuxDefaultsStore::keys() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const auto& [key, value] : values_.items()) result.push_back(key);
    return result;
}

}  // namespace dorvane
