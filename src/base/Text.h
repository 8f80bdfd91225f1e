// SPDX-License-Identifier: Apache-2.0
// Rules about text that names, paths and protocols share. Text is UTF-8 throughout.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/Bytes.h"

namespace dorvane {

constexpr bool isASCIIHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string asciiLowercased(std::string_view text);
std::string asciiUppercased(std::string_view text);
/// Simple case folding over Unicode (one scalar to one), for comparing names without regard to case.
std::string lowercased(std::string_view text);

/// Without leading and trailing white space of any kind that Unicode has, line ends included.
std::string_view trimmed(std::string_view text);
/// Every piece between separators, empty ones included.
std::vector<std::string> split(std::string_view text, char separator);
std::string joined(const std::vector<std::string>& pieces, std::string_view separator);

bool isValidUTF8(std::string_view text);
/// Invalid sequences become U+FFFD.
std::string repairedUTF8(ByteView bytes);
/// Unicode scalars of valid UTF-8; invalid bytes count as U+FFFD.
std::u32string scalars(std::string_view text);
/// The first `count` scalars of the text (all of it when it has fewer).
std::string_view prefixOfScalars(std::string_view text, std::size_t count);
std::size_t scalarCount(std::string_view text);

/// Finder-like order: digits compare as numbers and letters without regard to case, so "vm2" precedes "vm10".
/// Returns whether `a` comes before `b`.
bool precedesNaturally(std::string_view a, std::string_view b);

}  // namespace dorvane
