// SPDX-License-Identifier: Apache-2.0
// Tight rectangles one after the other on one decoder. Each piece of the input is a rectangle: width, height
// and a mode, then either the payload itself, or the head of one and plain data that are compressed here, so
// that the filters are reached too.
#include <cstdlib>

#include "Pieces.h"
#include "display/rfb/TightDecoder.h"
#include "display/rfb/WireBuilder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    using namespace dorvane::fuzz;
    using test::operator+, test::operator+=;
    TightDecoder decoder;
    test::Deflater deflater;
    Pieces pieces({data, size});
    while (const auto piece = pieces.next()) {
        if (piece->size() < 4) continue;
        const int width = (*piece)[0], height = (*piece)[1];
        const std::size_t headBytes = (*piece)[2];
        const auto body = piece->subspan(3);
        Bytes payload(body.begin(), body.end());
        if (headBytes > 0 && headBytes <= body.size()) {
            const auto compressed = deflater.piece(body.subspan(headBytes));
            payload.resize(headBytes);
            payload += test::compactLength(compressed.size()) + compressed;
        }
        try {
            const auto pixels = decoder.decode(width, height, payload);
            if (pixels.size() != std::size_t(width) * std::size_t(height) * 4) std::abort();
        } catch (const TightDecoder::DecodeError&) {
            return 0;
        }
    }
    return 0;
}
