// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/InflateStream.h"

namespace dorvane {

void InflateStream::setInput(ByteView input) {
    // zlib reads only; its interface is older than const.
    stream_.next_in = const_cast<Bytef*>(input.data());
    stream_.avail_in = static_cast<uInt>(input.size());
    isExhausted_ = input.empty();
}

std::size_t InflateStream::inflate(std::span<std::uint8_t> output) {
    stream_.next_out = output.data();
    stream_.avail_out = static_cast<uInt>(output.size());
    while (!isExhausted_ && stream_.avail_out > 0) {
        const auto inputBefore = stream_.avail_in, outputBefore = stream_.avail_out;
        const int result = ::inflate(&stream_, Z_NO_FLUSH);
        const bool isOutOfInput = result == Z_BUF_ERROR && stream_.avail_in == 0;
        if (result != Z_OK && result != Z_STREAM_END && !isOutOfInput) throw ZlibFailure{result};
        // A stream that has ended takes nothing more, whatever comes.
        const bool isStuck = stream_.avail_in == inputBefore && stream_.avail_out == outputBefore;
        isExhausted_ = isStuck || (stream_.avail_in == 0 && stream_.avail_out > 0);
    }
    return output.size() - stream_.avail_out;
}

std::size_t InflateStream::discard(std::span<std::uint8_t> scratch) {
    std::size_t total = 0;
    while (!isExhausted_) total += inflate(scratch);
    return total;
}

}  // namespace dorvane
