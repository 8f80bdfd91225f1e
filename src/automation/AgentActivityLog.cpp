// SPDX-License-Identifier: Apache-2.0
#include "automation/AgentActivityLog.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/Text.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Logger.h"

namespace dorvane {
namespace {

void shorten(std::string& text, std::size_t limit) {
    const auto kept = prefixOfScalars(text, limit).size();
    if (kept < text.size()) text.replace(kept, std::string::npos, "…");
}

std::deque<AgentActivityEntry> load(const Path& file) {
    std::deque<AgentActivityEntry> entries;
    try {
        for (const auto& line : split(readTextFile(file), '\n'))
            if (auto entry = AgentActivityEntry::decodedLine(line)) entries.push_back(*std::move(entry));
    } catch (const FileError&) {
        // Not there yet, or not readable: the log begins empty.
    }
    while (entries.size() > AgentActivityLog::maximumEntries) entries.pop_front();
    return entries;
}

/// A line cut short by a crash must not swallow the one that follows it.
bool endsInsideLine(int fd) {
    const auto size = ::lseek(fd, 0, SEEK_END);
    char last = '\n';
    return size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

void appendLine(const Path& file, std::string line) {
    const FileDescriptor fd(::open(file.c_str(), O_RDWR | O_APPEND | O_CLOEXEC));
    if (!fd) {
        writeFileAtomically(file, line);
        return;
    }
    if (endsInsideLine(fd.get())) line.insert(line.begin(), '\n');
    for (std::string_view rest = line; !rest.empty();) {
        const auto written = ::write(fd.get(), rest.data(), rest.size());
        if (written < 0 && errno != EINTR) throw FileError("write", file, errno);
        if (written > 0) rest.remove_prefix(static_cast<std::size_t>(written));
    }
}

/// Runs on the log's queue.
void persist(const Path& file, const std::string& text, bool isWholeFile) {
    try {
        std::filesystem::create_directories(file.parent_path());
        if (isWholeFile)
            writeFileAtomically(file, text);
        else
            appendLine(file, text);
    } catch (const std::exception& error) {
        Logger("AgentActivityLog").error("Could not write agent activity: %{public}s", error.what());
    }
}

}  // namespace

AgentActivityLog::AgentActivityLog(const Runtime& runtime, std::optional<Path> file)
    : file_(std::move(file)), ioQueue_(runtime.background.executor(), "com.dorvane.app.agent-activity") {
    if (file_) entries_ = load(*file_);
}

std::optional<Path> AgentActivityLog::defaultFile(const ApplicationDirectories& directories) {
    if (directories.applicationSupport.empty()) return std::nullopt;
    return directories.applicationSupport / "AgentActivity" / "activity.jsonl";
}

std::vector<AgentActivityEntry> AgentActivityLog::entries(const std::string& vmName, const UUID& id) const {
    std::vector<AgentActivityEntry> found;
    const auto idText = id.text();
    for (const auto& entry : entries_)
        if (entry.vm == vmName || entry.vm == idText) found.push_back(entry);
    return found;
}

void AgentActivityLog::record(AgentActivityEntry entry) {
    shorten(entry.summary, maximumSummaryCharacters);
    shorten(entry.tool, maximumTextCharacters);
    if (entry.vm) shorten(*entry.vm, maximumTextCharacters);
    if (entry.error) shorten(*entry.error, maximumTextCharacters);
    entries_.push_back(std::move(entry));
    const bool isFull = entries_.size() > maximumEntries;
    while (entries_.size() > maximumEntries) entries_.pop_front();
    if (file_) {
        // Encoded where it is written when it is much: a full log is rewritten at every call.
        auto lines = isFull ? entries_ : std::deque<AgentActivityEntry>{entries_.back()};
        ioQueue_.async([file = *file_, lines = std::move(lines), isFull] {
            std::string text;
            for (const auto& line : lines) text += line.encodedLine();
            persist(file, text, isFull);
        });
    }
    changed();
}

void AgentActivityLog::clear() {
    entries_.clear();
    if (file_)
        ioQueue_.async([file = *file_] {
            std::error_code absent;
            std::filesystem::remove(file, absent);
        });
    changed();
}

}  // namespace dorvane
