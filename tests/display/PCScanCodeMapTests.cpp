// SPDX-License-Identifier: Apache-2.0
#include "display/PCScanCodeMap.h"

#include <gtest/gtest.h>

#include <set>

namespace dorvane::test {
namespace {

TEST(PCScanCodeMap, givesEachPositionToOneKey) {
    EXPECT_EQ(PCScanCodeMap::scanCode(55), 219u);
    for (const std::uint16_t missing : {63, 66, 127, 65'535}) EXPECT_FALSE(PCScanCodeMap::scanCode(missing));
    std::set<std::uint32_t> codes;
    for (std::uint16_t key = 0; key < 128; ++key)
        if (const auto code = PCScanCodeMap::scanCode(key)) codes.insert(*code);
    EXPECT_EQ(codes.size(), 108u);
}

}  // namespace
}  // namespace dorvane::test
