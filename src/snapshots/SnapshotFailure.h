// SPDX-License-Identifier: Apache-2.0
// Failures of snapshot work on their way to whoever asked for it.
#pragma once

#include "core/DorvaneError.h"
#include "runtime/Task.h"

namespace dorvane {

/// What the task throws; empty when it ends well.
Task<std::exception_ptr> outcome(Task<void> task);
/// Whether it is a DorvaneError of this case.
bool isCase(const std::exception_ptr& failure, DorvaneError::Case which);
/// As `rethrowAs`; moreover a refusal made for snapshots in general becomes one of this operation.
[[noreturn]] void rethrowAsOwn(DorvaneError::Case which, const std::exception_ptr& failure);

}  // namespace dorvane
