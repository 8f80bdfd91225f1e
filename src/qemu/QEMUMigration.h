// SPDX-License-Identifier: Apache-2.0
// A machine's memory on its way to or from a file, as QMP tells of it.
#pragma once

#include "qemu/QMPConnection.h"
#include "runtime/Files.h"

namespace dorvane::QEMUMigration {

/// The arguments of "migrate" and "migrate-incoming" for a state file.
JSON channelArguments(const Path& file);
/// The "status" that "query-migrate" gives; empty when there is none.
Task<std::string> status(std::shared_ptr<QMPConnection> connection, Duration timeout);
/// Whether nothing is being written or read any more.
bool isSettled(const std::string& status);
/// Begins to write the machine's state. Throws vmSnapshotFailed with the reason of a refusal.
Task<void> begin(std::shared_ptr<QMPConnection> connection, Path file, Duration timeout);
/// Returns once the migration has completed. Throws vmSnapshotFailed with QEMU's words when it failed, ran
/// out of time or `isPeerGone` says so; a QMP error passes through.
Task<void> waitUntilCompleted(std::shared_ptr<QMPConnection> connection, Clock& clock, Duration timeout,
                              std::function<bool()> isPeerGone);

}  // namespace dorvane::QEMUMigration
