// SPDX-License-Identifier: Apache-2.0
#include "display/PCScanCodeMap.h"

#include <algorithm>
#include <array>
#include <utility>

namespace dorvane {
namespace {

using Pair = std::pair<std::uint16_t, std::uint32_t>;  // host virtual key code, scan code

// Sorted by key code. Keys with an 0xE0 prefix are written as their code plus 128.
constexpr std::array<Pair, 108> table{{
    {0, 30},   {1, 31},    {2, 32},   {3, 33},    {4, 35},   {5, 34},    {6, 44},    {7, 45},    {8, 46},
    {9, 47},   {10, 86},   {11, 48},  {12, 16},   {13, 17},  {14, 18},   {15, 19},   {16, 21},   {17, 20},
    {18, 2},   {19, 3},    {20, 4},   {21, 5},    {22, 7},   {23, 6},    {24, 13},   {25, 10},   {26, 8},
    {27, 12},  {28, 9},    {29, 11},  {30, 27},   {31, 24},  {32, 22},   {33, 26},   {34, 23},   {35, 25},
    {36, 28},  {37, 38},   {38, 36},  {39, 40},   {40, 37},  {41, 39},   {42, 43},   {43, 51},   {44, 53},
    {45, 49},  {46, 50},   {47, 52},  {48, 15},   {49, 57},  {50, 41},   {51, 14},   {53, 1},    {54, 220},
    {55, 219}, {56, 42},   {57, 58},  {58, 56},   {59, 29},  {60, 54},   {61, 184},  {62, 157},  {65, 83},
    {67, 55},  {69, 78},   {71, 69},  {72, 176},  {73, 174}, {74, 160},  {75, 181},  {76, 156},  {78, 74},
    {81, 89},  {82, 82},   {83, 79},  {84, 80},   {85, 81},  {86, 75},   {87, 76},   {88, 77},   {89, 71},
    {91, 72},  {92, 73},   {93, 125}, {94, 115},  {96, 63},  {97, 64},   {98, 65},   {99, 61},   {100, 66},
    {101, 67}, {103, 87},  {109, 68}, {110, 221}, {111, 88}, {114, 210}, {115, 199}, {116, 201}, {117, 211},
    {118, 62}, {119, 207}, {120, 60}, {121, 209}, {122, 59}, {123, 203}, {124, 205}, {125, 208}, {126, 200},
}};

constexpr bool isSortedByKeyCode() {
    for (std::size_t i = 1; i < table.size(); ++i)
        if (table[i - 1].first >= table[i].first) return false;
    return true;
}
static_assert(isSortedByKeyCode());

}  // namespace

std::optional<std::uint32_t> PCScanCodeMap::scanCode(std::uint16_t keyCode) {
    const auto* found = std::lower_bound(table.begin(), table.end(), Pair{keyCode, 0});
    if (found == table.end() || found->first != keyCode) return std::nullopt;
    return found->second;
}

}  // namespace dorvane
