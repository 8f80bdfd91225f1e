// SPDX-License-Identifier: Apache-2.0
#include "display/session/VNCKeyMap.h"

#include <gtest/gtest.h>

namespace dorvane::test {
namespace {

TEST(VNCKeyMap, namesKeysByPositionAndElseByWhatTheyType) {
    const struct {
        std::uint16_t keyCode;
        std::optional<std::string_view> typed;
        std::optional<std::uint32_t> keysym;
    } cases[] = {
        {36, "\r", 0xFF0D},     {54, std::nullopt, 0xFFEC},
        {0, "a", 0x61},         {52, std::nullopt, std::nullopt},
        {0, "", std::nullopt},  {0, "\u20AC", 0x10020AC},
        {0, "\u00FF", 0xFF},    {0, "\u0100", 0x1000100},
        {0, "\x1F", 0x100001F}, {0, " ", 0x20},
        {0, "\u00E4b", 0xE4},   {0, "\U0001F600", 0x101F600},
    };
    for (const auto& each : cases)
        EXPECT_EQ(VNCKeyMap::keysym(each.keyCode, each.typed), each.keysym) << each.typed.value_or("-");
}

}  // namespace
}  // namespace dorvane::test
