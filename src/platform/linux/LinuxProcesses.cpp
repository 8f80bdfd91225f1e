// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxProcesses.h"

#include <sys/socket.h>

#include <charconv>

#include "base/Text.h"

namespace dorvane {
namespace {

constexpr std::size_t shortNameBytes = 15;

Path processFolder(int pid) { return Path("/proc") / std::to_string(pid); }

std::optional<std::string> textOf(const Path& file) {
    try {
        return readTextFile(file);
    } catch (const FileError&) {
        return std::nullopt;
    }
}

std::optional<int> number(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// The folder's entries whose names are numbers.
std::vector<int> numberedEntries(const Path& folder) {
    std::vector<int> result;
    std::error_code failure;
    auto entries = std::filesystem::directory_iterator(folder, failure);
    for (; !failure && entries != std::filesystem::directory_iterator(); entries.increment(failure))
        if (const auto value = number(entries->path().filename().string())) result.push_back(*value);
    return result;
}

/// The fourth field of "stat"; the second, a name in brackets, may itself hold brackets and blanks.
std::optional<int> parentPID(int pid) {
    const auto text = textOf(processFolder(pid) / "stat");
    const auto bracket = text ? text->rfind(')') : std::string::npos;
    if (bracket == std::string::npos || text->size() < bracket + 2) return std::nullopt;
    const auto fields = split(std::string_view(*text).substr(bracket + 2), ' ');
    return fields.size() > 1 ? number(fields[1]) : std::nullopt;
}

/// Children by asking every process for its parent, for kernels without lists of children.
std::vector<int> scannedChildren(int pid) {
    auto all = numberedEntries("/proc");
    std::erase_if(all, [&](int candidate) { return parentPID(candidate) != pid; });
    return all;
}

}  // namespace

std::optional<std::string> LinuxProcesses::name(int pid) const {
    auto text = textOf(processFolder(pid) / "comm");
    if (text && text->ends_with('\n')) text->pop_back();
    return text;
}

std::optional<std::vector<int>> LinuxProcesses::childPIDs(int pid) const {
    const auto threads = numberedEntries(processFolder(pid) / "task");
    if (threads.empty()) return std::nullopt;
    std::vector<int> children;
    for (const int thread : threads) {
        const auto list = textOf(processFolder(pid) / "task" / std::to_string(thread) / "children");
        if (!list) return scannedChildren(pid);
        for (const auto& word : split(*list, ' '))
            if (const auto child = number(word)) children.push_back(*child);
    }
    return children;
}

std::optional<Path> LinuxProcesses::executablePath(int pid) const {
    constexpr std::string_view deletedMark = " (deleted)";
    std::error_code failure;
    auto path = std::filesystem::read_symlink(processFolder(pid) / "exe", failure).string();
    if (failure) return std::nullopt;
    if (path.ends_with(deletedMark)) path.resize(path.size() - deletedMark.size());
    return path;
}

std::optional<int> LinuxProcesses::peerPID(int socket) const {
    struct ucred peer {};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0)
        return std::nullopt;
    return peer.pid;
}

std::string LinuxProcesses::shortened(const std::string& program) const {
    return program.substr(0, shortNameBytes);
}

}  // namespace dorvane
