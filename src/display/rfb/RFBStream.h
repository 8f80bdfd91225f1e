// SPDX-License-Identifier: Apache-2.0
// The server's messages after the handshake: bytes in, a drawn framebuffer and events out.
#pragma once

#include <sys/uio.h>

#include <array>
#include <memory>
#include <span>

#include "display/rfb/RFBFramebuffer.h"
#include "display/rfb/ReceiveBuffer.h"
#include "display/rfb/TightDecoder.h"
#include "display/rfb/ZRLEDecoder.h"

namespace dorvane {

/// Told in the order of the stream, from inside `RFBStream::commit`. What a handler throws ends the stream.
class RFBStreamHandler {
  public:
    virtual ~RFBStreamHandler() = default;

    /// An update's header has come, none of its rectangles yet: the time to ask for the next one.
    virtual void updateBegan(int rectangleCount) = 0;
    /// All rectangles of an update are done. Not told for an update without any.
    virtual void updateFinished(bool didTouchPixels) = 0;
    /// The framebuffer has its new size and is black.
    virtual void desktopResized(int width, int height) = 0;
    virtual void extendedKeyEventsSupported() = 0;
    virtual void cursorReceived() = 0;
};

/// A resumable parser: takes the stream in pieces of any size and keeps what is incomplete. It knows no
/// socket. Lives on one queue. After a throw (RFBRectangle::ParseError, a decoder's DecodeError,
/// RFBConnectionError) the stream is of no more use.
class RFBStream {
  public:
    /// Both outlive the stream.
    RFBStream(RFBFramebuffer& framebuffer, RFBStreamHandler& handler)
        : framebuffer_(framebuffer), handler_(handler) {}

    /// Where the next bytes of the stream belong, in order: a large raw rectangle is received right into the
    /// framebuffer, all else into a buffer. Valid until the next call of `commit`.
    std::span<const iovec> prepare();
    /// Takes the first `count` bytes of what `prepare` gave as received, and does all that can be done with
    /// them.
    void commit(std::size_t count);
    /// Both for bytes that are elsewhere already.
    void feed(ByteView bytes);

  private:
    /// A raw rectangle inside the framebuffer that is drawn as it arrives.
    struct RawBody {
        PixelTarget target;
        std::size_t rowBytes = 0;
        std::size_t done = 0, total = 0;

        std::size_t remaining() const { return total - done; }
        /// The next bytes to come that lie next to each other in the framebuffer.
        std::span<std::uint8_t> nextSpan() const;
    };

    void prepareRaw();
    void addSpan(std::span<std::uint8_t> memory);
    bool parseNext();
    bool parseMessage();
    bool parseUpdate(RFBByteReader& reader);
    bool parseCutText(RFBByteReader& reader);
    bool parseRectangle();
    bool drawRaw(const RFBRectangleHeader& header, ByteView content);
    bool continueRaw();
    bool skipText();
    void endRectangle();

    void apply(const RFBRectangle::Raw& rectangle);
    void apply(const RFBRectangle::CopyRect& rectangle);
    void apply(const RFBRectangle::ZRLE& rectangle);
    void apply(const RFBRectangle::Tight& rectangle);
    void apply(const RFBRectangle::DesktopSize& size);
    void apply(const RFBExtendedDesktopSize& size);
    void apply(const RFBRectangle::Cursor& cursor);
    void apply(const RFBRectangle::QEMUExtendedKeyEventSupported& support);
    template <typename Decoder>
    void decode(Decoder& decoder, const RFBRectangleHeader& header, ByteView payload);

    static constexpr std::size_t maximumSpans = 256;

    RFBFramebuffer& framebuffer_;
    RFBStreamHandler& handler_;
    ZRLEDecoder zrleDecoder_;
    TightDecoder tightDecoder_;
    RFBPixelFormat pixelFormat_ = RFBPixelFormat::bgra32();
    ReceiveBuffer buffer_;
    std::array<iovec, maximumSpans> spans_{};
    std::size_t spanCount_ = 0;
    bool isDirect_ = false;  // the first spans lie in the framebuffer
    std::size_t directBytes_ = 0;
    std::optional<RawBody> raw_;
    int pendingRectangles_ = 0;
    bool didTouchPixels_ = false;
    std::size_t textToSkip_ = 0;
};

}  // namespace dorvane
