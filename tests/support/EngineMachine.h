// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "core/VMEngineProtocol.h"

namespace dorvane::test {

/// What an engine is given of a machine.
struct EngineMachine {
    UUID id = UUID::random();
    VMBundle bundle;
    VMAttachments attachments = {};
};

/// A small Windows guest.
inline DorvaneVMConfig windowsGuest(WindowsPlatformIdentity platform) {
    DorvaneVMConfig config;
    config.cpuCount = 2;
    config.memoryBytes = 1ULL << 30;
    config.macAddress = "02:00:00:00:00:01";
    config.display = {1280, 800, 96};
    config.windowsPlatform = std::move(platform);
    return config;
}

}  // namespace dorvane::test
