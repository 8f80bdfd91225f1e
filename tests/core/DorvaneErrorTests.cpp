// SPDX-License-Identifier: Apache-2.0
#include "core/DorvaneError.h"

#include <gtest/gtest.h>

#include "core/ByteCountText.h"
#include "runtime/Files.h"

namespace dorvane {
namespace {

using Case = DorvaneError::Case;

TEST(DorvaneError, fillsItsPayloadInOrder) {
    const std::vector<std::pair<DorvaneError, std::string>> table{
        {DorvaneError::backendExecutionFailed(-9, "killed"),
         "Backend execution failed (exit code: -9): killed"},
        {DorvaneError(Case::backendVersionMismatch, "2", "1"),
         "Backend version mismatch. Expected: 2, Actual: 1"},
        {DorvaneError(Case::vmAlreadyRunning, "%@ vm"), "VM '%@ vm' is already running"},
        {DorvaneError::insufficient(Case::diskSpaceInsufficient, 12'340'000'000, 999),
         "Insufficient disk space. Required: 12.3 GB, Available: 999 bytes"},
        {DorvaneError(Case::suspendedStateRestoreFailed, "dev", "no"),
         "\"dev\" could not resume where it left off: no"},
        {DorvaneError::snapshotChainTooDeep(64),
         "This VM already has 64 stacked snapshots, which is the limit. Delete an older snapshot before "
         "taking a new one."},
        {DorvaneError(Case::guestAgentFailed, "just this"), "just this"},
        {DorvaneError::wrapping(Case::unknown, FileError("read", "/a", ENOENT)),
         "An unexpected error occurred: Could not read /a: No such file or directory"},
        {DorvaneError(Case::guestAgentTimedOut), "The guest agent did not answer in time."},
    };
    for (const auto& [error, text] : table) EXPECT_EQ(error.errorDescription(), text);
}

TEST(DorvaneError, offersHelpWhereThereIsSome) {
    EXPECT_FALSE(DorvaneError(Case::vmBusy, "dev").recoverySuggestion());
    const auto noReply = std::make_exception_ptr(DorvaneError(Case::guestAgentNoReply, "eof"));
    EXPECT_EQ(
        describedWithSuggestion(noReply),
        "The command was sent to the guest, but no result came back (eof). It may have run anyway. Check the "
        "guest's state before running the command again, so it does not run twice.");
    EXPECT_EQ(describedWithSuggestion(std::make_exception_ptr(std::runtime_error("plain"))), "plain");
    EXPECT_EQ(localizedDescription(std::make_exception_ptr(5)), "An unknown error occurred.");
}

TEST(ByteCountText, countsInThousands) {
    const std::vector<std::pair<std::int64_t, std::string>> table{
        {0, "0 bytes"},        {1, "1 byte"},         {999, "999 bytes"},
        {1000, "1 KB"},        {999'499, "999 KB"},   {999'600, "1 MB"},
        {1'500'000, "1.5 MB"}, {999'960'000, "1 GB"}, {64'424'509'440, "64.4 GB"},
        {INT64_MAX, "9.2 EB"}, {-2'000'000, "-2 MB"}, {INT64_MIN, "-9.2 EB"},
    };
    for (const auto& [bytes, text] : table) EXPECT_EQ(byteCountText(bytes), text) << bytes;
}

}  // namespace
}  // namespace dorvane
