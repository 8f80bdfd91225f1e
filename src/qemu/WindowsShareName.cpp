// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsShareName.h"

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane::WindowsShareName {
namespace {

/// Windows looks only at what stands before the first dot: "aux.txt" is the device too.
bool isReserved(std::string_view name) {
    const auto stem = asciiLowercased(name.substr(0, name.find('.')));
    if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul") return true;
    const bool isPort = stem.starts_with("com") || stem.starts_with("lpt");
    return isPort && stem.size() == 4 && stem[3] >= '1' && stem[3] <= '9';
}

}  // namespace

std::string message(ValidationError error) {
    switch (error) {
        case ValidationError::empty:
            return localized("Enter a folder name for this share.");
        case ValidationError::tooLong:
            return localized("Folder names must be 255 characters or fewer.");
        case ValidationError::forbiddenCharacter:
            return localized("Folder names cannot contain \\ / : * ? \" < > |");
        case ValidationError::trailingDotOrBlank:
            return localized("Folder names cannot end with a period or a space.");
        case ValidationError::reserved:
            break;
    }
    return localized("That name is reserved by Windows. Pick another one.");
}

Result validate(std::string_view name) {
    const auto text = trimmed(name);
    if (text.empty()) return ValidationError::empty;
    if (scalarCount(text) > maximumCharacters) return ValidationError::tooLong;
    if (text.find_first_of(forbiddenCharacters) != text.npos) return ValidationError::forbiddenCharacter;
    if (text.back() == '.' || text.back() == ' ') return ValidationError::trailingDotOrBlank;
    if (isReserved(text)) return ValidationError::reserved;
    return std::string(text);
}

}  // namespace dorvane::WindowsShareName
