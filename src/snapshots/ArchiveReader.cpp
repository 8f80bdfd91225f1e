// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveReader.h"

#include <zlib.h>

#include <algorithm>

#include "base/Localized.h"
#include "snapshots/ArchiveEntryNames.h"
#include "snapshots/ArchiveReaderDirectory.h"
#include "snapshots/ArchiveReaderInflate.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

/// Passes content on for as long as it is what the directory says.
class CheckedSink : public ArchiveSink {
  public:
    CheckedSink(const ArchiveEntry& entry, ArchiveSink& sink, ArchiveControl& control)
        : entry_(entry), sink_(sink), control_(control) {}

    void bytes(ByteView content) override {
        count(content.size());
        crc_ = static_cast<std::uint32_t>(::crc32_z(crc_, content.data(), content.size()));
        sink_.bytes(content);
    }
    void zeros(std::uint64_t size) override {
        count(size);
        for (auto left = size; left > 0; left -= archiveSegmentBytes) crc_ = crcWithZeros(crc_);
        sink_.zeros(size);
    }
    void finish() const {
        if (size_ != entry_.size)
            throw damagedArchive("\"" + shownArchiveName(entry_.name) + "\" is cut off");
        if (crc_ != entry_.crc)
            throw damagedArchive("\"" + shownArchiveName(entry_.name) + "\" doesn't match its checksum");
    }

  private:
    void count(std::uint64_t more) {
        if (more > entry_.size - size_)
            throw damagedArchive("\"" + shownArchiveName(entry_.name) + "\" is longer than the archive says");
        size_ += more;
        control_.advance(more);
    }

    const ArchiveEntry& entry_;
    ArchiveSink& sink_;
    ArchiveControl& control_;
    std::uint64_t size_ = 0;
    std::uint32_t crc_ = 0;
};

class TextSink : public ArchiveSink {
  public:
    void bytes(ByteView content) override { text += asText(content); }
    void zeros(std::uint64_t count) override { text.append(static_cast<std::size_t>(count), '\0'); }
    std::string text;
};

}  // namespace

ArchiveReader::ArchiveReader(std::unique_ptr<const ArchiveSource> source)
    : source_(std::move(source)), entries_(readArchiveDirectory(*source_)) {}

const ArchiveEntry* ArchiveReader::find(std::string_view name) const {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) { return entry.name == name; });
    return found == entries_.end() ? nullptr : &*found;
}

std::uint64_t ArchiveReader::uncompressedBytes() const {
    std::uint64_t total = 0;
    // Entries are few enough and small enough for the sum to stop at the top instead of starting again.
    for (const auto& entry : entries_) total += std::min(entry.size, UINT64_MAX - total);
    return total;
}

std::uint64_t ArchiveReader::dataOffset(const ArchiveEntry& entry) const {
    const auto header = readArchive(*source_, entry.headerOffset, zip::localHeaderBytes);
    const auto* p = header.data();
    const auto damaged = [&] {
        return damagedArchive("the beginning of \"" + shownArchiveName(entry.name) + "\" is broken");
    };
    if (zip::load<std::uint32_t>(p) != zip::localHeaderSignature ||
        zip::load<std::uint16_t>(p + 8) != entry.method ||
        (zip::load<std::uint16_t>(p + 6) & zip::encryptedFlags) != 0)
        throw damaged();
    const auto nameBytes = zip::load<std::uint16_t>(p + 26);
    const auto name = readArchive(*source_, entry.headerOffset + zip::localHeaderBytes, nameBytes);
    const auto expected = entry.kind == ArchiveEntryKind::directory ? entry.name + "/" : entry.name;
    if (asText(name) != expected) throw damaged();
    const auto offset =
        entry.headerOffset + zip::localHeaderBytes + nameBytes + zip::load<std::uint16_t>(p + 28);
    // The local header has a say of its own about where the data begins.
    const auto end = source_->size();
    if (offset > end || entry.compressedSize > end - offset) throw damaged();
    return offset;
}

std::string ArchiveReader::readText(const ArchiveEntry& entry, std::size_t limit) const {
    if (entry.kind == ArchiveEntryKind::directory || entry.size > limit)
        throw ArchiveError(
            localized("\"%@\" is not the small file that it should be.", shownArchiveName(entry.name)));
    TextSink sink;
    ArchiveControl control;
    read(entry, sink, control);
    return std::move(sink.text);
}

void ArchiveReader::read(const ArchiveEntry& entry, ArchiveSink& sink, ArchiveControl& control) const {
    CheckedSink checked(entry, sink, control);
    ArchiveInput input(*source_, dataOffset(entry), entry.compressedSize);
    if (entry.method == zip::stored)
        copyStored(input, checked);
    else
        inflateAll(input, checked);
    checked.finish();
}

}  // namespace dorvane
