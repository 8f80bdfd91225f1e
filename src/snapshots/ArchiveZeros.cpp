// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveZeros.h"

#include <zlib.h>

#include <array>
#include <cstring>

namespace dorvane {
namespace {

/// Packs bits as RFC 1951 orders them: from the lowest up.
class BitWriter {
  public:
    void put(unsigned value, unsigned count) {
        held_ |= value << heldCount_;
        for (heldCount_ += count; heldCount_ >= 8; heldCount_ -= 8, held_ >>= 8)
            bytes_.push_back(static_cast<std::uint8_t>(held_));
    }
    void align() {
        if (heldCount_ > 0) put(0, 8 - heldCount_);
    }
    Bytes take() { return std::move(bytes_); }

  private:
    Bytes bytes_;
    unsigned held_ = 0;
    unsigned heldCount_ = 0;
};

// The block's own codes, as the canonical order gives them from the code lengths below. Huffman codes stand
// with their first bit lowest.
struct Code {
    unsigned bits, length;
};
constexpr Code match258{0b0, 1}, zeroLiteral{0b01, 2}, endOfBlock{0b11, 2}, distanceOne{0b0, 1};
constexpr Code runOfUnused{0b0, 1}, lengthOne{0b01, 2}, lengthTwo{0b11, 2};
constexpr unsigned longestMatch = 258;
constexpr unsigned literals = archiveSegmentBytes % longestMatch;
constexpr unsigned matches = archiveSegmentBytes / longestMatch;
static_assert(literals > 0, "a match repeats what stands before it");

void putUnused(BitWriter& out, unsigned count) {
    out.put(runOfUnused.bits, runOfUnused.length);
    out.put(count - 11, 7);
}

/// A dynamic block whose alphabet is the literal 0, the longest match, the end and the distance 1.
void putHeader(BitWriter& out) {
    out.put(0b100, 3);      // not the last, dynamic codes
    out.put(286 - 257, 5);  // literal and length codes
    out.put(0, 5);          // one distance code
    constexpr unsigned lengthCodes = 18;
    out.put(lengthCodes - 4, 4);
    // Of the code length alphabet only 18, 2 and 1 are used, which stand third, 16th and 18th in its order.
    for (unsigned place = 0; place < lengthCodes; ++place)
        out.put(place == 2 ? runOfUnused.length : place == 15 || place == 17 ? lengthTwo.length : 0, 3);
    out.put(lengthTwo.bits, lengthTwo.length);  // 0
    putUnused(out, 138);                        // 1 to 255
    putUnused(out, 117);
    out.put(lengthTwo.bits, lengthTwo.length);  // 256
    putUnused(out, 28);                         // 257 to 284
    out.put(lengthOne.bits, lengthOne.length);  // 285
    out.put(lengthOne.bits, lengthOne.length);  // distance 1
}

Bytes makeDeflatedZeros() {
    BitWriter out;
    putHeader(out);
    for (unsigned i = 0; i < literals; ++i) out.put(zeroLiteral.bits, zeroLiteral.length);
    for (unsigned i = 0; i < matches; ++i) {
        out.put(match258.bits, match258.length);
        out.put(distanceOne.bits, distanceOne.length);
    }
    out.put(endOfBlock.bits, endOfBlock.length);
    out.put(0, 3);  // an empty stored block, which ends at a byte
    out.align();
    for (const unsigned byte : {0x00, 0x00, 0xFF, 0xFF}) out.put(byte, 8);
    return out.take();
}

}  // namespace

ByteView deflatedZeros() {
    static const Bytes bytes = makeDeflatedZeros();
    return bytes;
}

std::uint32_t crcWithZeros(std::uint32_t crc) {
    static const std::uint32_t zerosCRC = [] {
        const Bytes zeros(archiveSegmentBytes);
        return static_cast<std::uint32_t>(::crc32_z(0, zeros.data(), zeros.size()));
    }();
    static const auto appendSegment = ::crc32_combine_gen(archiveSegmentBytes);
    return static_cast<std::uint32_t>(::crc32_combine_op(crc, zerosCRC, appendSegment));
}

bool isAllZero(ByteView bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

}  // namespace dorvane
