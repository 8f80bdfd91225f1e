// SPDX-License-Identifier: Apache-2.0
// A Windows guest without its display driver shows a plain frame buffer until its tools have been seen.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"

namespace dorvane::WindowsDisplaySwitch {

/// Remembers that the tools run, for the next cold start. Returns whether that is news. Throws FileError.
bool noteGuestTools(const DorvaneVMConfig& config, const VMBundle& bundle);
/// The configuration for a launch: with the full display when the tools have been seen, which is written
/// down. A suspended machine keeps its devices until its state is gone. Returns whether it was switched.
/// Throws FileError.
bool apply(DorvaneVMConfig& config, const VMBundle& bundle);

}  // namespace dorvane::WindowsDisplaySwitch
