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

}  // namespace dorvane::test
