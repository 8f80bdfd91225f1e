// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"

#include <algorithm>
#include <clocale>
#include <cwctype>

namespace dorvane {
namespace {

constexpr char32_t replacement = 0xFFFD;

/// Decodes one scalar at `at` and moves on; an invalid sequence yields the replacement and moves one byte.
char32_t decodeOne(std::string_view text, std::size_t& at, bool& valid) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(at);
    if (lead < 0x80) return byte(at++);
    const std::size_t length = lead >= 0xF0 && lead < 0xF5   ? 4
                               : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                                                             : 0;
    if (length == 0 || at + length > text.size()) {
        valid = false;
        ++at;
        return replacement;
    }
    char32_t scalar = lead & (0xFF >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            valid = false;
            ++at;
            return replacement;
        }
        scalar = scalar << 6 | (byte(at + i) & 0x3F);
    }
    const bool overlong = (length == 3 && scalar < 0x800) || (length == 4 && scalar < 0x10000);
    if (overlong || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar < 0xE000)) {
        valid = false;
        ++at;
        return replacement;
    }
    at += length;
    return scalar;
}

void appendUTF8(std::string& out, char32_t c) {
    const auto put = [&](char32_t value) { out.push_back(static_cast<char>(value)); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | (c >> 6));
        put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        put(0xE0 | (c >> 12));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | (c >> 18));
        put(0x80 | ((c >> 12) & 0x3F));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

/// The C library's table for all of Unicode, whatever the process's own locale is.
char32_t lowerScalar(char32_t c) {
    static const locale_t unicode = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return static_cast<char32_t>(::towlower_l(static_cast<std::wint_t>(c), unicode));
}

/// Unicode's White_Space, tabs and line ends included.
constexpr std::string_view blanks[] = {" ",      "\t",     "\n",     "\v",     "\f",     "\r",     "\u0085",
                                       "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003", "\u2004",
                                       "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u2028",
                                       "\u2029", "\u202F", "\u205F", "\u3000"};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Takes a run of digits at `at`, without its leading zeros.
std::string_view takeNumber(std::string_view text, std::size_t& at) {
    const auto start = at;
    while (at < text.size() && isDigit(text[at])) ++at;
    auto number = text.substr(start, at - start);
    while (number.size() > 1 && number.front() == '0') number.remove_prefix(1);
    return number;
}

}  // namespace

std::string asciiLowercased(std::string_view text) {
    std::string result(text);
    for (auto& c : result)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return result;
}

std::string asciiUppercased(std::string_view text) {
    std::string result(text);
    for (auto& c : result)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    return result;
}

std::string lowercased(std::string_view text) {
    std::string result;
    for (const auto c : scalars(text)) appendUTF8(result, lowerScalar(c));
    return result;
}

std::string_view trimmed(std::string_view text) {
    const auto drop = [&](const auto& stands, const auto& remove) {
        for (;;) {
            const auto* blank = std::ranges::find_if(blanks, stands);
            if (blank == std::end(blanks)) return;
            remove(blank->size());
        }
    };
    drop([&](std::string_view blank) { return text.starts_with(blank); },
         [&](std::size_t size) { text.remove_prefix(size); });
    drop([&](std::string_view blank) { return text.ends_with(blank); },
         [&](std::size_t size) { text.remove_suffix(size); });
    return text;
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (auto at = text.find(separator); at != std::string_view::npos; at = text.find(separator, start)) {
        pieces.emplace_back(text.substr(start, at - start));
        start = at + 1;
    }
    pieces.emplace_back(text.substr(start));
    return pieces;
}

std::string joined(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string text;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0) text += separator;
        text += pieces[i];
    }
    return text;
}

bool isValidUTF8(std::string_view text) {
    bool valid = true;
    for (std::size_t at = 0; at < text.size() && valid;) decodeOne(text, at, valid);
    return valid;
}

std::u32string scalars(std::string_view text) {
    std::u32string result;
    bool valid = true;
    for (std::size_t at = 0; at < text.size();) result.push_back(decodeOne(text, at, valid));
    return result;
}

std::string repairedUTF8(ByteView bytes) {
    std::string result;
    result.reserve(bytes.size());
    for (const auto c : scalars(asText(bytes))) appendUTF8(result, c);
    return result;
}

std::string_view prefixOfScalars(std::string_view text, std::size_t count) {
    bool valid = true;
    std::size_t at = 0;
    while (at < text.size() && count-- > 0) decodeOne(text, at, valid);
    return text.substr(0, at);
}

std::size_t scalarCount(std::string_view text) { return scalars(text).size(); }

bool precedesNaturally(std::string_view a, std::string_view b) {
    const auto foldedA = lowercased(a), foldedB = lowercased(b);
    std::size_t i = 0, j = 0;
    while (i < foldedA.size() && j < foldedB.size()) {
        if (isDigit(foldedA[i]) && isDigit(foldedB[j])) {
            const auto left = takeNumber(foldedA, i), right = takeNumber(foldedB, j);
            if (left.size() != right.size()) return left.size() < right.size();
            if (left != right) return left < right;
            continue;
        }
        const auto left = static_cast<std::uint8_t>(foldedA[i++]),
                   right = static_cast<std::uint8_t>(foldedB[j++]);
        if (left != right) return left < right;
    }
    if (foldedA.size() - i != foldedB.size() - j) return foldedA.size() - i < foldedB.size() - j;
    return a < b;
}

}  // namespace dorvane
