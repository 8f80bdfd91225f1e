// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "base/Date.h"
#include "base/Hex.h"
#include "base/JSON.h"
#include "base/Localized.h"
#include "base/RandomBytes.h"
#include "base/SHA256.h"
#include "base/Text.h"
#include "base/UUID.h"

namespace dorvane {
namespace {

TEST(Localized, fillsEveryPlaceholderFormInOrder) {
    EXPECT_EQ(formatted("%@ of %lld at %hux%hu, %{public}f%% %%@", "a", 5, 640, 480, 1.5),
              "a of 5 at 640x480, 1.5% %@");
    EXPECT_EQ(formatted("%@ and %@", "one"), "one and %@");
    EXPECT_EQ(formatted("100% sure %{public", "x"), "100% sure %{public");
    EXPECT_EQ(formatted("%@", "%@"), "%@");
}

TEST(Base64, readsOnlyWhatItWrites) {
    for (const auto* text : {"", "f", "fo", "foo", "foob"})
        EXPECT_EQ(parseBase64(base64Text(asBytes(text))), toBytes(text));
    for (const auto* bad : {"Zg=", "Zg", "Z===", "Zm9v!A==", "Zg==Zg==", "Z=g="})
        EXPECT_FALSE(parseBase64(bad)) << bad;
}

TEST(UUID, textFormIsUpperCaseAndStrict) {
    const auto id = UUID::random();
    EXPECT_EQ(UUID::parse(id.text()), id);
    EXPECT_EQ(UUID::parse(asciiLowercased(id.text())), id);
    EXPECT_EQ(id.text(), asciiUppercased(id.text()));
    for (const auto* bad : {"", "x", "{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}",
                            "6BA7B8109DAD11D180B400C04FD430C8", "6BA7B810-9DAD-11D1-80B4-00C04FD430CG"})
        EXPECT_FALSE(UUID::parse(bad)) << bad;
}

TEST(Date, roundTripsAndRefusesWhatIsNoDate) {
    for (const auto* text : {"1970-01-01T00:00:00Z", "2024-02-29T23:59:59Z", "2026-11-21T08:43:19Z"})
        EXPECT_EQ(iso8601Text(*parseISO8601(text)), text);
    for (const auto* bad :
         {"", "2023-02-29T00:00:00Z", "2026-11-21 08:43:19Z", "2026-11-21T25:00:00Z", "2026-1-21T08:43:19Z "})
        EXPECT_FALSE(parseISO8601(bad)) << bad;
}

TEST(Text, decodesRepairsAndFolds) {
    for (const auto* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82"}) EXPECT_FALSE(isValidUTF8(bad)) << bad;
    EXPECT_TRUE(isValidUTF8("\xF0\x9F\x92\xBB"));
    EXPECT_EQ(repairedUTF8(asBytes("a\xFFz")), "a\xEF\xBF\xBDz");
    EXPECT_EQ(lowercased("ÄÖ ΩΜΈΓΑ ŽИ ҐՄＡ"), "äö ωμέγα žи ґմａ");
    EXPECT_EQ(prefixOfScalars("äöü", 2), "äö");
    EXPECT_EQ(trimmed(" \t\u3000 a b\u00A0 \r\n"), "a b");
    EXPECT_EQ(trimmed("\u2003\u00A0"), "");
}

TEST(Text, sortsLikeAFileBrowser) {
    std::vector<std::string> names{"vm10", "VM2", "vm1", "b", "A", "vm02"};
    std::stable_sort(names.begin(), names.end(),
                     [](const auto& a, const auto& b) { return precedesNaturally(a, b); });
    EXPECT_EQ(names, (std::vector<std::string>{"A", "b", "vm1", "VM2", "vm02", "vm10"}));
}

TEST(JSON, readsStrictly) {
    const auto value = parseJSON(R"({"i":5,"f":1.5,"b":true,"s":"x","big":18446744073709551615,"n":null})");
    const JSONReader reader(value);
    EXPECT_EQ(reader.required<int>("i"), 5);
    EXPECT_EQ(reader.required<std::uint64_t>("big"), 18446744073709551615ULL);
    for (const auto* key : {"n", "missing"}) EXPECT_EQ(reader.optional<std::string>(key), std::nullopt);
    for (const auto* key : {"missing", "b", "f", "big"})
        EXPECT_THROW(reader.required<int>(key), JSONError) << key;
    EXPECT_THROW(reader.required<bool>("i"), JSONError);
    EXPECT_THROW(parseJSON("{\"a\":\"\xFF\"}"), JSONError);
    EXPECT_THROW(parseJSON(std::string(100000, '[')), JSONError);
}

TEST(Secrets, comparisonRefusesEmptyAndUnequalLengths) {
    EXPECT_TRUE(equalInConstantTime("abc", "abc"));
    EXPECT_FALSE(equalInConstantTime("", ""));
    EXPECT_FALSE(equalInConstantTime("abc", "abcd"));
    EXPECT_FALSE(equalInConstantTime("abc", "abd"));
}

TEST(SHA256, matchesThePublishedVector) {
    EXPECT_EQ(SHA256::hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace dorvane
