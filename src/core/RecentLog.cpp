// SPDX-License-Identifier: Apache-2.0
#include "core/RecentLog.h"

namespace dorvane {
namespace {

bool isWordCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c < 0;
}

/// Whether the word stands in the text and isn't part of a longer one: "vm1" is not named by "vm10".
bool names(std::string_view text, std::string_view word) {
    if (word.empty()) return false;
    for (auto at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1)) {
        const auto end = at + word.size();
        const bool begins = at == 0 || !isWordCharacter(text[at - 1]);
        const bool ends = end == text.size() || !isWordCharacter(text[end]);
        if (begins && ends) return true;
    }
    return false;
}

}  // namespace

void RecentLog::note(const LogLine& line) {
    const auto date = clock_.date();
    const std::lock_guard lock(mutex_);
    entries_.push_back({date, line});
    if (entries_.size() > capacity) entries_.pop_front();
}

std::string RecentLog::lines(const VMRecordFields& vm) const {
    const auto id = vm.id.text();
    std::string text;
    const std::lock_guard lock(mutex_);
    for (const auto& [date, line] : entries_)
        if (names(line.message, vm.name) || names(line.message, id))
            text += iso8601Text(date) + " [" + line.category + "] " + line.message + "\n";
    return text;
}

}  // namespace dorvane
