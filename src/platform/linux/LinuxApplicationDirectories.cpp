// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxApplicationDirectories.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Text.h"
#include "runtime/Sockets.h"

namespace dorvane {
namespace {

constexpr auto folderName = "dorvane";
/// What a running machine puts below the temporary folder for its longest socket.
constexpr std::string_view longestSocketSuffix = "/dvn/01234567/q.sock";
constexpr auto publicTemporary = "/tmp";

Path homeDirectory(const Environment& environment) {
    const auto home = environment.find("HOME");
    if (home != environment.end() && Path(home->second).is_absolute()) return home->second;
    struct passwd entry {};
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? Path(found->pw_dir) : Path("/");
}

std::optional<Path> absolutePath(const Environment& environment, const std::string& variable) {
    const auto value = environment.find(variable);
    if (value == environment.end() || !Path(value->second).is_absolute()) return std::nullopt;
    return value->second;
}

/// The documents folder that the user chose: a line XDG_DOCUMENTS_DIR="$HOME/Documents" or with a whole path.
std::optional<Path> chosenDocuments(const Path& configurationHome, const Path& home) {
    std::string text;
    try {
        text = readTextFile(configurationHome / "user-dirs.dirs");
    } catch (const FileError&) {
        return std::nullopt;
    }
    constexpr std::string_view key = "XDG_DOCUMENTS_DIR=\"";
    constexpr std::string_view homeVariable = "$HOME/";
    for (const auto& line : split(text, '\n')) {
        auto value = trimmed(line);
        if (!value.starts_with(key) || !value.ends_with('"') || value.size() <= key.size()) continue;
        value = value.substr(key.size(), value.size() - key.size() - 1);
        if (value.starts_with(homeVariable)) return home / value.substr(homeVariable.size());
        if (value.starts_with('/')) return Path(value);
    }
    return std::nullopt;
}

bool belongsToUserAlone(const Path& directory) {
    struct stat info {};
    return ::lstat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
           (info.st_mode & 077) == 0;
}

bool fitsSockets(const Path& directory) {
    return directory.native().size() + longestSocketSuffix.size() <= maximumSocketPathBytes;
}

/// A folder in a place where everybody may write: the same one at each start, unless somebody else has taken
/// it.
Path privateDirectory(const Path& base) {
    auto usual = base / (std::string(folderName) + "-" + std::to_string(::geteuid()));
    ::mkdir(usual.c_str(), 0700);
    if (belongsToUserAlone(usual)) return usual;
    std::string pattern = usual.string() + "-XXXXXX";
    return ::mkdtemp(pattern.data()) != nullptr ? Path(pattern) : usual;
}

Path runtimeDirectory(const Environment& environment) {
    const auto session = absolutePath(environment, "XDG_RUNTIME_DIR");
    if (session && belongsToUserAlone(*session) && fitsSockets(*session / folderName))
        return *session / folderName;
    const auto temporary = absolutePath(environment, "TMPDIR");
    if (temporary && ::access(temporary->c_str(), W_OK) == 0) {
        auto directory = privateDirectory(*temporary);
        if (fitsSockets(directory)) return directory;
    }
    return privateDirectory(publicTemporary);
}

Path dataHome(const Environment& environment) {
    return absolutePath(environment, "XDG_DATA_HOME").value_or(homeDirectory(environment) / ".local/share");
}

}  // namespace

ApplicationDirectories linuxApplicationDirectories(const Environment& environment) {
    const auto home = homeDirectory(environment);
    const auto configurationHome = absolutePath(environment, "XDG_CONFIG_HOME").value_or(home / ".config");
    ApplicationDirectories directories;
    directories.applicationSupport = dataHome(environment) / folderName;
    directories.configuration = configurationHome / folderName;
    directories.caches = absolutePath(environment, "XDG_CACHE_HOME").value_or(home / ".cache") / folderName;
    directories.state =
        absolutePath(environment, "XDG_STATE_HOME").value_or(home / ".local/state") / folderName;
    directories.documents =
        absolutePath(environment, "XDG_DOCUMENTS_DIR")
            .value_or(chosenDocuments(configurationHome, home).value_or(home / "Documents"));
    directories.runtime = runtimeDirectory(environment);
    directories.temporary = directories.runtime;
    return directories;
}

std::filesystem::path linuxHomeTrash(const Environment& environment) {
    return dataHome(environment) / "Trash";
}

}  // namespace dorvane
