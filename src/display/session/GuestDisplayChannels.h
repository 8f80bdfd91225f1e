// SPDX-License-Identifier: Apache-2.0
// From what the engine hands out to what a display client connects to.
#pragma once

#include "core/VMEngineProtocol.h"
#include "display/GuestDisplayTransport.h"

namespace dorvane {

/// The channel to the guest's screen; absent when the screen is shown inside this process.
std::optional<GuestDisplayChannel> displayChannel(const GuestDisplaySource::Kind& source);
/// The socket of the guest agent's port, where the machine has one.
std::optional<std::string> agentSocketPath(const GuestDisplaySource::Kind& source);

}  // namespace dorvane
