// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveEntryNames.h"

#include <algorithm>

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumNameBytes = 1024;
constexpr std::size_t maximumComponentBytes = 255;

bool isASCIILetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isSafeComponent(const std::string& component) {
    return !component.empty() && component != "." && component != ".." &&
           component.size() <= maximumComponentBytes;
}

}  // namespace

bool isSafeArchiveName(std::string_view name) {
    if (name.size() > maximumNameBytes || !isValidUTF8(name)) return false;
    if (name.find('\\') != std::string_view::npos || name.find('\0') != std::string_view::npos) return false;
    if (name.size() >= 2 && isASCIILetter(name[0]) && name[1] == ':') return false;
    const auto components = split(name, '/');
    return std::all_of(components.begin(), components.end(), isSafeComponent);
}

bool isSafeArchiveLink(std::string_view name, std::string_view target) {
    if (target.empty() || target.size() > maximumNameBytes || target.find('\0') != std::string_view::npos)
        return false;
    // Upwards only at the beginning, where real folders lie: behind the name of a link ".." means another
    // place.
    auto climbable = std::count(name.begin(), name.end(), '/') - 1;
    if (climbable < 0) return false;
    bool climbs = true;
    for (const auto& component : split(target, '/')) {
        if (component == "..") {
            if (!climbs || --climbable < 0) return false;
        } else if (!isSafeComponent(component)) {
            return false;
        } else {
            climbs = false;
        }
    }
    return true;
}

std::string shownArchiveName(std::string_view name) {
    auto shown = repairedUTF8(asBytes(name.substr(0, maximumNameBytes)));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; },
        '?');
    return shown;
}

void ArchiveEntryNames::add(const std::string& name, ArchiveEntryKind kind) {
    if (!isSafeArchiveName(name))
        throw ArchiveError(localized("The name \"%@\" can't be used in an archive.", shownArchiveName(name)));
    const auto clash = [&] {
        return ArchiveError(localized("The name \"%@\" stands for two things.", shownArchiveName(name)));
    };
    for (auto slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
        const auto parent = name.substr(0, slash);
        const auto& place = places_.try_emplace(lowercased(parent), Place{parent, true, false}).first->second;
        if (!place.isDirectory || place.name != parent) throw clash();
    }
    const bool isDirectory = kind == ArchiveEntryKind::directory;
    const auto [found, isNew] = places_.try_emplace(lowercased(name), Place{name, isDirectory, true});
    auto& place = found->second;
    if (isNew) return;
    if (place.isListed || !isDirectory || !place.isDirectory || place.name != name) throw clash();
    place.isListed = true;
}

}  // namespace dorvane
