// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBStream.h"

#include <algorithm>

#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/RFBEncoding.h"

namespace dorvane {
namespace {

// Below these a raw rectangle goes through the buffer: more spans would cost more than the copy saves.
constexpr std::size_t minimumDirectBytes = 4'096;
constexpr std::size_t minimumDirectRowBytes = 512;
// Behind a rectangle received in place another is likely: only its header, and little else, goes through the
// buffer.
constexpr std::size_t headerChunkBytes = 512;
// More than any rectangle that can still become complete: the longest is a cursor with its mask.
constexpr std::size_t maximumWaitingBytes = RFBRectangle::maximumBytes + RFBRectangle::maximumBytes / 8;

}  // namespace

std::span<std::uint8_t> RFBStream::RawBody::nextSpan() const {
    if (rowBytes == target.stride) return {target.pixels + done, remaining()};
    const auto column = done % rowBytes;
    return {target.row(done / rowBytes) + column, rowBytes - column};
}

std::span<const iovec> RFBStream::prepare() {
    spanCount_ = 0;
    isDirect_ = raw_ && raw_->remaining() >= minimumDirectBytes && raw_->rowBytes >= minimumDirectRowBytes;
    if (isDirect_) prepareRaw();
    const auto tail = buffer_.tail();
    addSpan(isDirect_ ? tail.first(headerChunkBytes) : tail);
    return {spans_.data(), spanCount_};
}

/// The buffer is empty while a raw body lasts: `continueRaw` has taken what was in it.
void RFBStream::prepareRaw() {
    auto body = *raw_;
    while (body.remaining() > 0 && spanCount_ < maximumSpans - 1) {
        const auto span = body.nextSpan();
        addSpan(span);
        body.done += span.size();
    }
    directBytes_ = body.done - raw_->done;
}

void RFBStream::addSpan(std::span<std::uint8_t> memory) {
    spans_[spanCount_++] = {memory.data(), memory.size()};
}

void RFBStream::commit(std::size_t count) {
    if (isDirect_) {
        const auto drawn = std::min(count, directBytes_);
        raw_->done += drawn;
        count -= drawn;
    }
    buffer_.commit(count);
    while (parseNext()) {
    }
}

void RFBStream::feed(ByteView bytes) {
    while (!bytes.empty()) {
        std::size_t count = 0;
        for (const auto& span : prepare()) {
            const auto part = std::min(span.iov_len, bytes.size());
            std::copy_n(bytes.begin(), part, static_cast<std::uint8_t*>(span.iov_base));
            bytes = bytes.subspan(part);
            count += part;
        }
        commit(count);
    }
}

/// Whether there was anything to do.
bool RFBStream::parseNext() {
    if (textToSkip_ > 0) return skipText();
    if (raw_) return continueRaw();
    return pendingRectangles_ > 0 ? parseRectangle() : parseMessage();
}

bool RFBStream::parseMessage() {
    RFBByteReader reader(buffer_.content());
    const auto type = reader.readUInt8();
    if (!type) return false;
    switch (RFBServerMessageType(*type)) {
        case RFBServerMessageType::framebufferUpdate:
            return parseUpdate(reader);
        case RFBServerMessageType::setColourMapEntries:
            throw RFBConnectionError::handshakeFailed("The VM display sent an unexpected colour map.");
        case RFBServerMessageType::bell:
            buffer_.consume(reader.position());
            return true;
        case RFBServerMessageType::serverCutText:
            return parseCutText(reader);
    }
    throw RFBConnectionError::handshakeFailed("Unknown message type " + std::to_string(*type) +
                                              " from the VM display.");
}

bool RFBStream::parseUpdate(RFBByteReader& reader) {
    constexpr std::size_t paddingBytes = 1;
    const auto count = reader.skip(paddingBytes) ? reader.readUInt16() : std::nullopt;
    if (!count) return false;
    buffer_.consume(reader.position());
    pendingRectangles_ = *count;
    didTouchPixels_ = false;
    handler_.updateBegan(*count);
    return true;
}

bool RFBStream::parseCutText(RFBByteReader& reader) {
    constexpr std::size_t paddingBytes = 3;
    const auto length = reader.skip(paddingBytes) ? reader.readUInt32() : std::nullopt;
    if (!length) return false;
    buffer_.consume(reader.position());
    textToSkip_ = *length;
    return true;
}

/// The text is of no use and may be long, so it is dropped as it comes.
bool RFBStream::skipText() {
    const auto count = std::min(textToSkip_, buffer_.content().size());
    buffer_.consume(count);
    textToSkip_ -= count;
    return count > 0;
}

bool RFBStream::parseRectangle() {
    const auto content = buffer_.content();
    RFBByteReader reader(content);
    const auto header = RFBRectangle::readHeader(reader);
    if (!header) return false;
    if (header->encoding == rawValue(RFBEncoding::raw) && framebuffer_.contains(*header))
        return drawRaw(*header, content.subspan(reader.position()));
    reader.setPosition(0);
    const auto rectangle = RFBRectangle::parse(reader, pixelFormat_);
    if (!rectangle) {
        if (content.size() > maximumWaitingBytes) throw RFBRectangle::ParseError::tooLarge(content.size());
        return false;
    }
    std::visit([this](const auto& known) { apply(known); }, rectangle->content);
    buffer_.consume(reader.position());
    endRectangle();
    return true;
}

void RFBStream::endRectangle() {
    if (--pendingRectangles_ == 0) handler_.updateFinished(didTouchPixels_);
}

/// Servers send many small ones in a row. One that isn't complete is drawn as its rows come; any other kind
/// of rectangle waits.
bool RFBStream::drawRaw(const RFBRectangleHeader& header, ByteView content) {
    const auto width = std::size_t(header.width), height = std::size_t(header.height);
    const auto target = framebuffer_.target(header);
    didTouchPixels_ = true;
    buffer_.consume(RFBRectangle::headerBytes);
    if (content.size() < header.pixelCount() * 4) {
        raw_ = RawBody{target, width * 4, 0, header.pixelCount() * 4};
        return true;
    }
    for (std::size_t y = 0; y < height; ++y) copyPixels(target.row(y), content.data() + y * width * 4, width);
    buffer_.consume(header.pixelCount() * 4);
    endRectangle();
    return true;
}

bool RFBStream::continueRaw() {
    auto content = buffer_.content();
    while (!content.empty() && raw_->remaining() > 0) {
        const auto span = raw_->nextSpan();
        const auto count = std::min(span.size(), content.size());
        std::copy_n(content.begin(), count, span.begin());
        content = content.subspan(count);
        buffer_.consume(count);
        raw_->done += count;
    }
    if (raw_->remaining() > 0) return false;
    raw_.reset();
    endRectangle();
    return true;
}

void RFBStream::apply(const RFBRectangle::Raw& rectangle) {
    framebuffer_.applyRaw(rectangle.header, rectangle.pixels);
    didTouchPixels_ = true;
}

void RFBStream::apply(const RFBRectangle::CopyRect& rectangle) {
    framebuffer_.applyCopyRect(rectangle.header, rectangle.sourceX, rectangle.sourceY);
    didTouchPixels_ = true;
}

void RFBStream::apply(const RFBRectangle::ZRLE& rectangle) {
    decode(zrleDecoder_, rectangle.header, rectangle.payload);
}

void RFBStream::apply(const RFBRectangle::Tight& rectangle) {
    decode(tightDecoder_, rectangle.header, rectangle.payload);
}

void RFBStream::apply(const RFBRectangle::DesktopSize& size) {
    if (size.width < 1 || size.height < 1) return;
    if (size.width == framebuffer_.width() && size.height == framebuffer_.height()) return;
    if (!RFBFramebuffer::isAcceptable(size.width, size.height))
        throw RFBRectangle::ParseError::tooLarge(std::size_t(size.width) * std::size_t(size.height) * 4);
    framebuffer_.resize(size.width, size.height);
    handler_.desktopResized(size.width, size.height);
}

void RFBStream::apply(const RFBExtendedDesktopSize& size) {
    apply(RFBRectangle::DesktopSize{size.width, size.height});
}

void RFBStream::apply(const RFBRectangle::Cursor&) { handler_.cursorReceived(); }

void RFBStream::apply(const RFBRectangle::QEMUExtendedKeyEventSupported&) {
    handler_.extendedKeyEventsSupported();
}

template <typename Decoder>
void RFBStream::decode(Decoder& decoder, const RFBRectangleHeader& header, ByteView payload) {
    if (framebuffer_.contains(header)) {
        decoder.decode(header.width, header.height, payload, framebuffer_.target(header));
    } else {
        framebuffer_.applyRaw(header, decoder.decode(header.width, header.height, payload));
    }
    didTouchPixels_ = true;
}

}  // namespace dorvane
