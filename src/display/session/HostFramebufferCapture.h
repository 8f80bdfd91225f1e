// SPDX-License-Identifier: Apache-2.0
// One picture of a guest's screen without a window.
#pragma once

#include "core/HostFramebufferCapturing.h"
#include "display/GuestDisplayTransport.h"
#include "runtime/Event.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Opens a transport of its own for a moment, takes the first frame and closes it: nothing of an open display
/// is used or disturbed. Callable on the main thread or a serial queue.
class HostFramebufferCapture : public HostFramebufferCapturing {
  public:
    class CaptureError : public std::runtime_error {
      public:
        enum class Case { timedOut, encodingFailed };
        explicit CaptureError(Case which);
        Case which() const { return which_; }

      private:
        Case which_;
    };
    /// Hands over the first frame or the first failure, whichever thread brings it.
    using FrameBox = OneShot<FramePointer>;

    HostFramebufferCapture(const Runtime& runtime, GuestDisplayTransportMaking& transports)
        : runtime_(runtime), transports_(transports) {}

    /// Throws CaptureError, and the transport's own errors unchanged.
    Task<Bytes> capturePNG(GuestDisplayChannel channel, Duration timeout);
    /// The same for what an engine hands out; invalidConfiguration for a screen that no transport reaches.
    Task<Bytes> capturePNG(GuestDisplaySource::Kind source, Duration timeout) override;

  private:
    Task<FramePointer> firstFrame(std::shared_ptr<GuestDisplayTransport> transport, Duration timeout);

    const Runtime& runtime_;
    GuestDisplayTransportMaking& transports_;
};

}  // namespace dorvane
