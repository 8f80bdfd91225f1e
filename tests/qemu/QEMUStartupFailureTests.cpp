// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUStartupFailure.h"

#include <gmock/gmock.h>

#include "base/Text.h"
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
    std::string long300, long301;
    for (int i = 0; i < 300; ++i) long300 += "é";
    long301 = long300 + "x";
    EXPECT_THAT(detailLines(long300 + "\n" + long301), ElementsAre(long300, long300 + "..."));
}

TEST(QEMUStartupFailure, WordsTheEnd) {
    const ExitStatus refused{ExitStatus::Kind::exited, 1};
    EXPECT_EQ(QEMUStartupFailure::reason(refused, "qemu-system-aarch64: no\nway"),
              "The virtual machine exited during startup with status 1.\nno\nway");
    EXPECT_EQ(QEMUStartupFailure::reason({ExitStatus::Kind::signaled, 9}, ""),
              "The virtual machine was terminated by signal 9 during startup.");
    EXPECT_EQ(QEMUStartupFailure::exitReason(refused, ""), "The virtual machine exited with status 1.");
    EXPECT_EQ(QEMUStartupFailure::exitReason(refused, "qemu-system-aarch64: disk gone\n"), "disk gone");
}

TEST(QEMUStderrTail, KeepsTheEndAndRepairsIt) {
    QEMUStderrTail tail;
    tail.append(Bytes(100000, 'a'));
    tail.append(asBytes("end"));
    EXPECT_EQ(tail.text().size(), QEMUStderrTail::capacity);
    EXPECT_TRUE(tail.text().ends_with("aend"));
    QEMUStderrTail broken;
    broken.append(
        asBytes("a\xff"
                "b"));
    EXPECT_EQ(broken.text(),
              "a\xEF\xBF\xBD"
              "b");
}

}  // namespace
}  // namespace dorvane
