// SPDX-License-Identifier: Apache-2.0
// ZRLE rectangles one after the other on one decoder. Each piece of the input is a rectangle: width, height
// and a mode, then the payload itself, or tile data that are compressed here.
#include <cstdlib>

#include "Pieces.h"
#include "display/rfb/ZRLEDecoder.h"
#include "support/Deflater.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    using namespace dorvane::fuzz;
    ZRLEDecoder decoder;
    test::Deflater deflater;
    Pieces pieces({data, size});
    while (const auto piece = pieces.next()) {
        if (piece->size() < 3) continue;
        const int width = (*piece)[0], height = (*piece)[1];
        const auto body = piece->subspan(3);
        const auto payload = (*piece)[2] % 8 == 0 ? Bytes(body.begin(), body.end()) : deflater.piece(body);
        try {
            const auto pixels = decoder.decode(width, height, payload);
            if (pixels.size() != std::size_t(width) * std::size_t(height) * 4) std::abort();
        } catch (const ZRLEDecoder::DecodeError&) {
            return 0;
        }
    }
    return 0;
}
