// SPDX-License-Identifier: Apache-2.0
// A picture of a guest's screen, taken by the host.
#pragma once

#include "core/VMEngineProtocol.h"

namespace dorvane {

class HostFramebufferCapturing {
  public:
    virtual ~HostFramebufferCapturing() = default;

    /// One PNG of the screen behind the source. Throws when no frame comes within `timeout`.
    virtual Task<Bytes> capturePNG(GuestDisplaySource::Kind source, Duration timeout) = 0;
};

}  // namespace dorvane
