// SPDX-License-Identifier: Apache-2.0
// A rectangle of any bytes: parsed whole or not at all, and never beyond the bytes that are there.
#include <cstdlib>

#include "display/rfb/RFBRectangle.h"

namespace {

using namespace dorvane;

/// Where the rectangle ends, nothing for an incomplete one or an error.
std::optional<std::size_t> endOfRectangle(ByteView bytes) {
    RFBByteReader reader(bytes);
    try {
        if (RFBRectangle::parse(reader, RFBPixelFormat::bgra32())) return reader.position();
    } catch (const RFBRectangle::ParseError&) {
        return std::nullopt;
    }
    if (reader.position() != 0) std::abort();
    return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    const auto end = endOfRectangle(bytes);
    if (!end) return 0;
    if (*end > size || endOfRectangle(bytes.first(*end)) != end) std::abort();
    if (*end > 0 && endOfRectangle(bytes.first(*end - 1))) std::abort();
    return 0;
}
