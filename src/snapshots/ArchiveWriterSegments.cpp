// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveWriterSegments.h"

#include <zlib.h>

#include <stdexcept>
#include <thread>

#include "snapshots/ArchiveFormat.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

constexpr int memoryLevel = 8;
/// For the end of a segment, which the library's bound doesn't count.
constexpr std::size_t flushBytes = 64;
constexpr std::size_t maximumThreads = 8;
constexpr std::size_t maximumPending = 1024;

ArchiveSegment compress(const Bytes& content) {
    z_stream stream{};
    if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, zip::rawDeflateWindowBits, memoryLevel,
                       Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    ArchiveSegment segment;
    segment.size = content.size();
    segment.crc = static_cast<std::uint32_t>(::crc32_z(0, content.data(), content.size()));
    segment.compressed.resize(::deflateBound(&stream, static_cast<uLong>(content.size())) + flushBytes);
    stream.next_in = const_cast<Bytef*>(content.data());
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = segment.compressed.data();
    stream.avail_out = static_cast<uInt>(segment.compressed.size());
    const int result = ::deflate(&stream, Z_FULL_FLUSH);
    const bool isWhole = result == Z_OK && stream.avail_in == 0 && stream.avail_out > 0;
    segment.compressed.resize(segment.compressed.size() - stream.avail_out);
    ::deflateEnd(&stream);
    if (!isWhole) throw std::logic_error("A segment was not compressed to its end.");
    return segment;
}

}  // namespace

ArchiveSegmentQueue::ArchiveSegmentQueue(Consumer consumer)
    : consumer_(std::move(consumer)),
      limit_(std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, maximumThreads)) {}

void ArchiveSegmentQueue::add(Bytes content) {
    while (underWay_ >= limit_) take();
    ++underWay_;
    pending_.push_back(
        {std::async(std::launch::async, [content = std::move(content)] { return compress(content); }),
         false});
}

void ArchiveSegmentQueue::addZeros() {
    ArchiveSegment zeros{{}, 0, archiveSegmentBytes};
    if (pending_.empty()) return consumer_(zeros);
    while (pending_.size() >= maximumPending) take();
    std::promise<ArchiveSegment> known;
    known.set_value(std::move(zeros));
    pending_.push_back({known.get_future(), true});
}

void ArchiveSegmentQueue::finish() {
    while (!pending_.empty()) take();
}

void ArchiveSegmentQueue::take() {
    auto first = std::move(pending_.front());
    pending_.pop_front();
    if (!first.isZeros) --underWay_;
    consumer_(first.segment.get());
}

}  // namespace dorvane
