// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUStartupFailure.h"

#include <gmock/gmock.h>

#include "qemu/QEMUStderrTail.h"

namespace dorvane {
namespace {

using QEMUStartupFailure::detailLines;
using testing::ElementsAre;

TEST(QEMUStartupFailure, KeepsTheLastWordsWithoutTheProgramsName) {
    EXPECT_THAT(
        detailLines("qemu-system-aarch64: -foo: bad option\n\n  QEMU-System-x86_64:\tnext \r\n"
                    "qemu-systemd: stays\nqemu-system-aarch64 said: stays\nqemu-system-: \n"),
        ElementsAre("-foo: bad option", "next", "qemu-systemd: stays", "qemu-system-aarch64 said: stays"));
    EXPECT_THAT(detailLines("1\n2\n3\n4\n5\n6\n7"), ElementsAre("3", "4", "5", "6", "7"));
    EXPECT_TRUE(detailLines(" \n\t\n").empty());
}

TEST(QEMUStartupFailure, CutsLongLinesAtWholeCharacters) {
    std::string long300;
    for (int i = 0; i < 300; ++i) long300 += "é";
    EXPECT_THAT(detailLines(long300 + "\n" + long300 + "x"), ElementsAre(long300, long300 + "..."));
}

TEST(QEMUStderrTail, KeepsTheEndAndRepairsIt) {
    QEMUStderrTail tail;
    tail.append(Bytes(100000, 'a'));
    tail.append(asBytes("end"));
    EXPECT_EQ(tail.text().size(), QEMUStderrTail::capacity);
    EXPECT_TRUE(tail.text().ends_with("aend"));
    QEMUStderrTail broken;
    broken.append(asBytes(std::string{'a', '\xff', 'b'}));
    EXPECT_EQ(broken.text(), "a\uFFFDb");
}

}  // namespace
}  // namespace dorvane
