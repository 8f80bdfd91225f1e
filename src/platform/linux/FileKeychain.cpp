// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FileKeychain.h"

#include <sys/stat.h>
#include <unistd.h>

#include "base/Hex.h"
#include "platform/linux/SetAside.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumSecretsBytes = 1 << 20;
constexpr mode_t groupAndOthers = 077;

}  // namespace

/// Throws FileError; EPERM for a file of another user.
void FileKeychain::makePrivate() const {
    struct stat info {};
    if (::lstat(file_.c_str(), &info) != 0) throw FileError("read", file_, errno);
    if (info.st_uid != ::geteuid() || !S_ISREG(info.st_mode)) throw FileError("trust", file_, EPERM);
    if ((info.st_mode & groupAndOthers) == 0) return;
    if (::chmod(file_.c_str(), 0600) != 0) throw FileError("protect", file_, errno);
    logger_.error("%{public}s could be read by other users; its permissions were corrected", file_.string());
}

/// The stored items, empty when there is no file. Throws FileError and JSONError.
JSON FileKeychain::load() const {
    try {
        makePrivate();
        auto items = parseJSON(readTextFile(file_, maximumSecretsBytes));
        if (!items.is_object()) throw JSONError("The secrets are not a JSON object.");
        for (const auto& [service, accounts] : items.items())
            if (!accounts.is_object()) throw JSONError("The secrets of a service are not a JSON object.");
        return items;
    } catch (const FileError& error) {
        if (error.number() != ENOENT) throw;
        return JSON::object();
    }
}

void FileKeychain::store(const JSON& items) const {
    std::error_code ignored;  // the write says what is wrong
    std::filesystem::create_directories(file_.parent_path(), ignored);
    writeFileAtomically(file_, prettyJSON(items) + "\n", 0600);
}

std::optional<Bytes> FileKeychain::read(const std::string& service, const std::string& account) {
    const std::lock_guard lock(mutex_);
    try {
        const auto items = load();
        if (!items.contains(service) || !items[service].contains(account)) return std::nullopt;
        auto secret = parseBase64(jsonValue<std::string>(items[service][account], account));
        if (!secret) throw JSONError("A secret is not base64.");
        return secret;
    } catch (const std::exception& error) {
        logger_.error("Could not read a password from %{public}s: %{public}s", file_.string(), error.what());
        return std::nullopt;
    }
}

bool FileKeychain::save(const std::string& service, const std::string& account, ByteView secret) {
    const std::lock_guard lock(mutex_);
    try {
        JSON items = JSON::object();
        try {
            items = load();
        } catch (const JSONError& error) {
            logger_.error("%{public}s is damaged and was kept as %{public}s: %{public}s", file_.string(),
                          setAside(file_).string(), error.what());
        }
        items[service][account] = base64Text(secret);
        store(items);
        return true;
    } catch (const std::exception& error) {
        logger_.error("Could not save a password in %{public}s: %{public}s", file_.string(), error.what());
        return false;
    }
}

void FileKeychain::remove(const std::string& service, const std::string& account) {
    const std::lock_guard lock(mutex_);
    try {
        auto items = load();
        if (!items.contains(service) || items[service].erase(account) == 0) return;
        if (items[service].empty()) items.erase(service);
        store(items);
    } catch (const std::exception& error) {
        logger_.error("Could not remove a password from %{public}s: %{public}s", file_.string(),
                      error.what());
    }
}

}  // namespace dorvane
