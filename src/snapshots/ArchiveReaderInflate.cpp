// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveReaderInflate.h"

#include <zlib.h>

#include <algorithm>

#include "snapshots/ArchiveReaderDirectory.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

constexpr std::size_t inputBytes = 256 << 10;
constexpr std::size_t outputBytes = 256 << 10;
constexpr std::size_t deflateHistoryBytes = 32 << 10;
// What inflate tells after each block in z_stream::data_type.
constexpr int unusedBitsMask = 63, lastBlockBit = 64, blockEndBit = 128;

class Inflater {
  public:
    Inflater(ArchiveInput& input, ArchiveSink& sink) : input_(input), sink_(sink), output_(outputBytes) {
        if (::inflateInit2(&stream_, zip::rawDeflateWindowBits) != Z_OK) throw std::bad_alloc();
        resetOutput();
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() { ::inflateEnd(&stream_); }

    void run() {
        while (step()) {
        }
        flush();
        if (!input_.isAtEnd()) throw damagedArchive("there is more than one file's content");
    }

  private:
    bool step() {
        const auto zeros = deflatedZeros();
        const auto available = input_.peek(zeros.size());
        if (isBetweenBlocks_ && available.size() >= zeros.size() &&
            std::equal(zeros.begin(), zeros.end(), available.begin())) {
            skipZeros(zeros.size());
            return true;
        }
        // Later blocks may refer back to what was skipped.
        if (std::exchange(hasSkipped_, false)) {
            static const Bytes history(deflateHistoryBytes);
            if (::inflateSetDictionary(&stream_, history.data(), deflateHistoryBytes) != Z_OK)
                throw std::logic_error("inflate didn't take its history");
        }
        return inflateBlock(available);
    }

    void skipZeros(std::size_t compressedBytes) {
        flush();
        input_.consume(compressedBytes);
        sink_.zeros(archiveSegmentBytes);
        hasSkipped_ = true;
    }

    /// Says whether there may be more.
    bool inflateBlock(ByteView available) {
        stream_.next_in = const_cast<Bytef*>(available.data());
        stream_.avail_in = static_cast<uInt>(available.size());
        const int result = ::inflate(&stream_, Z_BLOCK);
        input_.consume(available.size() - stream_.avail_in);
        if (stream_.avail_out == 0) flush();
        if (result == Z_STREAM_END) return false;
        if (result == Z_BUF_ERROR && available.empty()) throw damagedArchive("compressed data is cut off");
        if (result == Z_MEM_ERROR) throw std::bad_alloc();
        if (result != Z_OK && result != Z_BUF_ERROR) throw damagedArchive("compressed data is broken");
        const int state = stream_.data_type;
        isBetweenBlocks_ = (state & blockEndBit) != 0 && (state & (unusedBitsMask | lastBlockBit)) == 0;
        return true;
    }

    void flush() {
        const auto count = outputBytes - stream_.avail_out;
        if (count > 0) sink_.bytes({output_.data(), count});
        resetOutput();
    }
    void resetOutput() {
        stream_.next_out = output_.data();
        stream_.avail_out = outputBytes;
    }

    ArchiveInput& input_;
    ArchiveSink& sink_;
    Bytes output_;
    z_stream stream_{};
    bool isBetweenBlocks_ = true;
    bool hasSkipped_ = false;
};

}  // namespace

ByteView ArchiveInput::peek(std::size_t count) {
    if (buffer_.size() - begin_ < count && left_ > 0) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
        while (buffer_.size() < count && left_ > 0) {
            const auto have = buffer_.size();
            const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left_, inputBytes - have));
            buffer_.resize(have + wanted);
            const auto got = source_.readAt(offset_, std::span(buffer_).subspan(have));
            buffer_.resize(have + got);
            if (got == 0) throw damagedArchive("it is cut off");
            offset_ += got;
            left_ -= got;
        }
    }
    return ByteView(buffer_).subspan(begin_);
}

void copyStored(ArchiveInput& input, ArchiveSink& sink) {
    while (!input.isAtEnd()) {
        const auto content = input.peek(1);
        sink.bytes(content);
        input.consume(content.size());
    }
}

void inflateAll(ArchiveInput& input, ArchiveSink& sink) { Inflater(input, sink).run(); }

}  // namespace dorvane
