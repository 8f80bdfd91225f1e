// SPDX-License-Identifier: Apache-2.0
#include "core/RecentLog.h"

#include <gtest/gtest.h>

#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

TEST(RecentLog, tellsTheLinesThatNameTheMachine) {
    TestRuntime host;
    RecentLog log(host.clock());
    VMRecordFields vm;
    vm.name = "vm1";
    log.note({LogLevel::info, "VMService", "Started VM: vm1"});
    log.note({LogLevel::info, "VMService", "Started VM: vm10"});
    log.note({LogLevel::error, "QEMU", "lost " + vm.id.text() + ", again"});
    const auto lines = log.lines(vm);
    EXPECT_EQ(lines, "2026-01-01T00:00:00Z [VMService] Started VM: vm1\n2026-01-01T00:00:00Z [QEMU] lost " +
                         vm.id.text() + ", again\n");
    for (std::size_t count = 0; count < RecentLog::capacity; ++count) log.note({LogLevel::info, "x", "y"});
    EXPECT_TRUE(log.lines(vm).empty()) << "old lines make room";
}

}  // namespace
}  // namespace dorvane::test
