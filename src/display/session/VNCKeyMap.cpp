// SPDX-License-Identifier: Apache-2.0
#include "display/session/VNCKeyMap.h"

#include <algorithm>
#include <span>

#include "base/Text.h"

namespace dorvane {
namespace {

struct KeysymRow {
    std::uint16_t keyCode;
    std::uint32_t keysym;
};
struct ModifierRow {
    std::uint16_t keyCode;
    std::uint32_t keysym;
    std::uint32_t flag;
};

// Both Shift, both Control, Caps Lock, both Option (Alt), both Command (Super).
constexpr ModifierRow modifiers[] = {
    {56, 0xFFE1, 0x20000}, {60, 0xFFE2, 0x20000},  {59, 0xFFE3, 0x40000},
    {62, 0xFFE4, 0x40000}, {57, 0xFFE5, 0x10000},  {58, 0xFFE9, 0x80000},
    {61, 0xFFEA, 0x80000}, {55, 0xFFEB, 0x100000}, {54, 0xFFEC, 0x100000},
};

constexpr KeysymRow specialKeysyms[] = {
    {36, 0xFF0D},  {76, 0xFF8D},  {48, 0xFF09},  {51, 0xFF08},   // Return, keypad Enter, Tab, Backspace
    {117, 0xFFFF}, {53, 0xFF1B},                                 // Delete, Escape
    {115, 0xFF50}, {119, 0xFF57}, {116, 0xFF55}, {121, 0xFF56},  // Home, End, Page Up, Page Down
    {123, 0xFF51}, {126, 0xFF52}, {124, 0xFF53}, {125, 0xFF54},  // left, up, right, down
    {114, 0xFF63},                                               // Insert
    {122, 0xFFBE}, {120, 0xFFBF}, {99, 0xFFC0},  {118, 0xFFC1},  // F1 to F12
    {96, 0xFFC2},  {97, 0xFFC3},  {98, 0xFFC4},  {100, 0xFFC5},
    {101, 0xFFC6}, {109, 0xFFC7}, {103, 0xFFC8}, {111, 0xFFC9},
};

template <typename Row, std::size_t count>
const Row* find(const Row (&rows)[count], std::uint16_t keyCode) {
    const auto* row = std::ranges::find(rows, keyCode, &Row::keyCode);
    return row == std::end(rows) ? nullptr : row;
}

/// Latin-1 is its own keysym; every other scalar has one above this base.
constexpr std::uint32_t unicodeKeysymBase = 0x1000000;
constexpr char32_t firstLatin1 = 32, lastLatin1 = 255;

}  // namespace

std::optional<std::uint32_t> VNCKeyMap::keysym(std::uint16_t keyCode,
                                               std::optional<std::string_view> charactersIgnoringModifiers) {
    if (const auto* row = find(specialKeysyms, keyCode)) return row->keysym;
    if (const auto* row = find(modifiers, keyCode)) return row->keysym;
    if (!charactersIgnoringModifiers) return std::nullopt;
    const auto typed = scalars(prefixOfScalars(*charactersIgnoringModifiers, 1));
    if (typed.empty()) return std::nullopt;
    if (typed[0] >= firstLatin1 && typed[0] <= lastLatin1) return typed[0];
    return typed[0] + unicodeKeysymBase;
}

std::optional<std::uint32_t> VNCKeyMap::modifierFlag(std::uint16_t keyCode) {
    const auto* row = find(modifiers, keyCode);
    if (row == nullptr) return std::nullopt;
    return row->flag;
}

}  // namespace dorvane
