// SPDX-License-Identifier: Apache-2.0
#include "base/Hex.h"

#include <array>

namespace dorvane {
namespace {

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
    const auto at = base64Alphabet.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

}  // namespace

std::string hexText(ByteView bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const auto byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 15]);
    }
    return text;
}

std::string base64Text(ByteView bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const auto count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = std::uint32_t{bytes[i]} << 16;
        if (count > 1) group |= std::uint32_t{bytes[i + 1]} << 8;
        if (count > 2) group |= bytes[i + 2];
        text.push_back(base64Alphabet[group >> 18]);
        text.push_back(base64Alphabet[(group >> 12) & 63]);
        text.push_back(count > 1 ? base64Alphabet[(group >> 6) & 63] : '=');
        text.push_back(count > 2 ? base64Alphabet[group & 63] : '=');
    }
    return text;
}

std::optional<Bytes> parseBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const int padding = !last ? 0 : text[i + 2] == '=' ? 2 : text[i + 3] == '=' ? 1 : 0;
        if (padding == 2 && text[i + 3] != '=') return std::nullopt;
        std::uint32_t group = 0;
        for (int j = 0; j < 4; ++j) {
            const int value = j >= 4 - padding ? 0 : base64Value(text[i + static_cast<std::size_t>(j)]);
            if (value < 0) return std::nullopt;
            group = group << 6 | static_cast<std::uint32_t>(value);
        }
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(group));
    }
    return bytes;
}

}  // namespace dorvane
