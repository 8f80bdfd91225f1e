// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPCodec.h"

#include <gtest/gtest.h>

#include <limits>

#include "qemu/QMPLineBuffer.h"

namespace dorvane {
namespace {

using Fault = QMPCodec::DecodeError::Case;

TEST(QMPCodec, EncodesWhatIsThere) {
    EXPECT_EQ(QMPCodec::encode("cont", nullptr, std::nullopt), "{\"execute\":\"cont\"}\n");
    EXPECT_EQ(QMPCodec::encode("cont", JSON::object(), "dorvane-1"),
              "{\"execute\":\"cont\",\"id\":\"dorvane-1\"}\n");
    EXPECT_EQ(QMPCodec::encode("getfd", {{"fdname", "a\nb"}}, "dorvane-2"),
              "{\"arguments\":{\"fdname\":\"a\\nb\"},\"execute\":\"getfd\",\"id\":\"dorvane-2\"}\n");
}

TEST(QMPCodec, DecodesEveryShapeByTheFirstKeyThatFits) {
    const std::vector<std::pair<std::string, QMPMessage>> table{
        {R"({"QMP":{"version":{"qemu":{"major":11,"minor":1,"micro":3},"package":""},"capabilities":["oob"]}})",
         {QMPMessage::Greeting{"11.1.3"}}},
        {R"({"QMP":{"version":{"qemu":{"major":8}}}})", {QMPMessage::Greeting{"8.0.0"}}},
        {R"({"QMP":{"version":{"qemu":"8.0"}}})", {QMPMessage::Greeting{"unknown"}}},
        {R"({"QMP":{}, "error":{}})", {QMPMessage::Greeting{"unknown"}}},
        {R"({"QMP":1, "return":{}})", {QMPMessage::Result{std::nullopt, {}}}},
        {R"({"error":{"class":"CommandNotFound","desc":"no such"},"id":"x"})",
         {QMPMessage::Error{"x", "CommandNotFound", "no such"}}},
        {R"({"error":{},"id":7,"event":"STOP"})",
         {QMPMessage::Error{std::nullopt, "GenericError", "Unknown QMP error"}}},
        {R"({"event":"STOP","return":{},"timestamp":{"seconds":1}})", {QMPMessage::Event{"STOP", {}}}},
        {R"({"event":"SHUTDOWN","data":{"guest":true,"reason":"guest-shutdown"}})",
         {QMPMessage::Event{"SHUTDOWN", {{"guest", true}, {"reason", "guest-shutdown"}}}}},
        {R"({"event":"E","data":[1]})", {QMPMessage::Event{"E", {}}}},
        {R"({"event":5,"return":5,"id":"a"})", {QMPMessage::Result{"a", {}}}},
        {R"({"return":[],"id":"a"})", {QMPMessage::Result{"a", {{"_items", QMPArray{}}}}}},
        {R"({"return":[{"a":null},-2.9,"é"],"id":"a"})"
         "\r",
         {QMPMessage::Result{"a", {{"_items", QMPArray{QMPObject{{"a", nullptr}}, -2, "é"}}}}}},
    };
    for (const auto& [line, message] : table) EXPECT_EQ(QMPCodec::decode(line), message) << line;
}

TEST(QMPCodec, RefusesTheRest) {
    const std::string deep = std::string(600, '[') + std::string(600, ']');
    const std::vector<std::pair<std::string, Fault>> table{
        {"", Fault::notJSON},
        {"[1]", Fault::notJSON},
        {"{\"return\":", Fault::notJSON},
        {"{} {}", Fault::notJSON},
        {"{\"return\":\"\xff\"}", Fault::notJSON},
        {"{\"return\":" + deep + "}", Fault::notJSON},
        {"{}", Fault::unrecognizedShape},
        {"{\"error\":\"x\"}", Fault::unrecognizedShape},
        {"{\"event\":null}", Fault::unrecognizedShape},
    };
    for (const auto& [line, which] : table) {
        try {
            QMPCodec::decode(line);
            ADD_FAILURE() << "accepted " << line;
        } catch (const QMPCodec::DecodeError& error) {
            EXPECT_EQ(error.which(), which) << line;
        }
    }
}

TEST(QMPValue, NumbersAreTruncatedAndClampedAndNeverBooleans) {
    using Integers = std::numeric_limits<std::int64_t>;
    const std::vector<std::pair<std::string, std::int64_t>> table{
        {"0", 0},
        {"-7", -7},
        {"2.99", 2},
        {"-2.99", -2},
        {"9223372036854775807", Integers::max()},
        {"18446744073709551615", Integers::max()},
        {"1e300", Integers::max()},
        {"-1e300", Integers::min()},
        {"9223372036854775808.0", Integers::max()},
        {"-9223372036854775808.0", Integers::min()}};
    for (const auto& [text, number] : table)
        EXPECT_EQ(QMPValue::fromJSON(parseJSON(text)), QMPValue(number)) << text;
    EXPECT_NE(QMPValue(true), QMPValue(1));
    EXPECT_EQ(QMPValue(true).integer(), std::nullopt);
    EXPECT_EQ(QMPValue(1).boolean(), std::nullopt);
}

TEST(QMPLineBuffer, GivesTheSameLinesHoweverTheyArrive) {
    const std::string stream = "\nfirst\n\n{\"a\":1}\r\nthird";
    const std::vector<std::string> expected{"first", "{\"a\":1}\r"};
    for (std::size_t chunk = 1; chunk <= stream.size(); ++chunk) {
        QMPLineBuffer buffer;
        std::vector<std::string> lines;
        for (std::size_t at = 0; at < stream.size(); at += chunk)
            for (auto& line : buffer.append(asBytes(std::string_view(stream).substr(at, chunk))))
                lines.push_back(line);
        EXPECT_EQ(lines, expected) << "in chunks of " << chunk;
        EXPECT_EQ(buffer.pendingBytes(), 5U);
        EXPECT_FALSE(buffer.isOverflowing());
    }
}

TEST(QMPLineBuffer, TellsAPeerThatNeverEndsItsLine) {
    QMPLineBuffer buffer;
    const Bytes flood(1 << 20, 'x');
    for (int i = 0; i < 64; ++i) buffer.append(flood);
    EXPECT_FALSE(buffer.isOverflowing());
    buffer.append(asBytes("x"));
    EXPECT_TRUE(buffer.isOverflowing());
}

}  // namespace
}  // namespace dorvane
