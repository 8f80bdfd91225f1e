// SPDX-License-Identifier: Apache-2.0
// A server's side of the handshake, any bytes: the same answers at once and byte by byte.
#include <cstdlib>

#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/RFBHandshake.h"

namespace {

using namespace dorvane;

std::string answers(ByteView bytes, std::size_t pieceBytes) {
    RFBHandshake handshake({RFBEncoding::raw});
    Bytes waiting, output;
    std::string failure;
    try {
        for (const auto byte : bytes) {
            waiting.push_back(byte);
            if (waiting.size() < pieceBytes && &byte != &bytes.back()) continue;
            const auto taken = handshake.consume(waiting, output);
            waiting.erase(waiting.begin(), waiting.begin() + std::ptrdiff_t(taken));
        }
    } catch (const RFBConnectionError& error) {
        failure = error.what();
    }
    return std::string(asText(output)) + failure +
           (handshake.isFinished() ? handshake.serverInit().name : "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    // A refusal may come before answers that a faster server would have seen.
    const auto slow = answers(bytes, 1), fast = answers(bytes, size);
    if (slow != fast) std::abort();
    return 0;
}
