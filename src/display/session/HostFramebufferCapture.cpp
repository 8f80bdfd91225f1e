// SPDX-License-Identifier: Apache-2.0
#include "display/session/HostFramebufferCapture.h"

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "display/rfb/RFBConnectionError.h"
#include "display/session/GuestDisplayChannels.h"
#include "display/session/PNGEncoder.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

using CaptureError = HostFramebufferCapture::CaptureError;
using FrameBox = HostFramebufferCapture::FrameBox;

std::string description(CaptureError::Case which) {
    switch (which) {
        case CaptureError::Case::timedOut:
            return localized("The VM display did not produce a frame in time.");
        case CaptureError::Case::encodingFailed:
            return localized("The captured frame could not be encoded as PNG.");
    }
    return {};
}

/// Closes the transport on every way out.
class ClosingTransport {
  public:
    explicit ClosingTransport(std::shared_ptr<GuestDisplayTransport> transport)
        : transport_(std::move(transport)) {}
    ClosingTransport(const ClosingTransport&) = delete;
    ClosingTransport& operator=(const ClosingTransport&) = delete;
    ~ClosingTransport() { transport_->close(); }
    const std::shared_ptr<GuestDisplayTransport>& get() const { return transport_; }

  private:
    std::shared_ptr<GuestDisplayTransport> transport_;
};

void deliverInto(const FrameBox& box, GuestDisplayTransport& transport) {
    transport.onFrame = [box](FramePointer frame) { box.succeed(std::move(frame)); };
    transport.onDisconnect = [box](const std::exception_ptr& error) {
        box.fail(error ? error : std::make_exception_ptr(RFBConnectionError::connectionClosed()));
    };
}

Task<void> connectInto(FrameBox box, std::shared_ptr<GuestDisplayTransport> transport, Duration timeout) {
    try {
        co_await transport->connect(timeout);
    } catch (...) {
        box.fail(std::current_exception());
    }
}

}  // namespace

HostFramebufferCapture::CaptureError::CaptureError(Case which)
    : std::runtime_error(description(which)), which_(which) {}

Task<FramePointer> HostFramebufferCapture::firstFrame(std::shared_ptr<GuestDisplayTransport> transport,
                                                      Duration timeout) {
    const FrameBox box;
    deliverInto(box, *transport);
    const auto deadline = runtime_.clock.now() + timeout;
    const Executor executor = co_await asio::this_coro::executor;
    // Beside the wait, not inside it: a connect that is slow to heed its cancellation must not hold the
    // caller up.
    const auto connecting = spawn(executor, connectInto(box, transport, timeout), "capturePNG");
    std::optional<FramePointer> frame;
    std::exception_ptr failure;
    try {
        frame = co_await withTimeout(runtime_.clock, timeout, box.wait());
    } catch (...) {
        failure = std::current_exception();
    }
    // Both time-outs are one: whichever fires first at the deadline, the guest's slowness is the reason.
    const bool isLate = runtime_.clock.now() >= deadline && !isCancellation(failure);
    if (!frame && (isLate || !failure)) throw CaptureError(CaptureError::Case::timedOut);
    if (failure) std::rethrow_exception(failure);
    co_return *frame;
}

Task<Bytes> HostFramebufferCapture::capturePNG(GuestDisplayChannel channel, Duration timeout) {
    FramePointer frame;
    {
        const ClosingTransport transport(transports_.makeTransport(channel));
        frame = co_await firstFrame(transport.get(), timeout);
    }
    const auto encode = [frame] { return encodePNG(*frame); };
    auto png = co_await runtime_.background.run(encode);
    if (png.empty()) throw CaptureError(CaptureError::Case::encodingFailed);
    co_return png;
}

Task<Bytes> HostFramebufferCapture::capturePNG(GuestDisplaySource::Kind source, Duration timeout) {
    auto channel = displayChannel(source);
    if (!channel)
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("This VM's display can't be captured by the host."));
    co_return co_await capturePNG(std::move(*channel), timeout);
}

}  // namespace dorvane
