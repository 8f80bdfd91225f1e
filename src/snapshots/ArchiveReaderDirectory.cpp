// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveReaderDirectory.h"

#include <sys/stat.h>

#include <algorithm>

#include "base/Localized.h"
#include "snapshots/ArchiveEntryNames.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

constexpr std::uint64_t maximumDirectoryBytes = 64 << 20;
constexpr std::uint64_t maximumFileBytes = INT64_MAX;

struct DirectoryPlace {
    std::uint64_t offset = 0, size = 0, count = 0;
};

ArchiveError noArchive() { return ArchiveError(localized("The file is not a ZIP archive.")); }

ArchiveError inParts() {
    return ArchiveError(localized("The archive is one part of several, which Dorvane can't read."));
}

/// Where the record at the end of the archive stands in the last bytes of the file. Behind it nothing but
/// zeros is taken for padding, which archivers that write in blocks leave.
std::size_t findEnd(const Bytes& tail) {
    for (auto at = tail.size() - zip::endBytes + 1; at-- > 0;) {
        const auto* p = tail.data() + at;
        if (zip::load<std::uint32_t>(p) != zip::endSignature) continue;
        const auto end = at + zip::endBytes + zip::load<std::uint16_t>(p + 20);
        if (end <= tail.size() && isAllZero(ByteView(tail).subspan(end))) return at;
    }
    throw noArchive();
}

DirectoryPlace readEnd64(const ArchiveSource& source, const std::uint8_t* locator,
                         std::uint64_t locatorOffset) {
    if (zip::load<std::uint32_t>(locator + 16) > 1) throw inParts();
    const auto offset = zip::load<std::uint64_t>(locator + 8);
    if (offset > locatorOffset || locatorOffset - offset < zip::end64Bytes)
        throw damagedArchive("its ZIP64 end record lies elsewhere");
    const auto record = readArchive(source, offset, zip::end64Bytes);
    const auto* p = record.data();
    if (zip::load<std::uint32_t>(p) != zip::end64Signature)
        throw damagedArchive("its ZIP64 end record is missing");
    const auto count = zip::load<std::uint64_t>(p + 32);
    if (zip::load<std::uint32_t>(p + 16) != 0 || zip::load<std::uint32_t>(p + 20) != 0 ||
        zip::load<std::uint64_t>(p + 24) != count)
        throw inParts();
    const DirectoryPlace place{zip::load<std::uint64_t>(p + 48), zip::load<std::uint64_t>(p + 40), count};
    if (place.offset > offset || place.size > offset - place.offset)
        throw damagedArchive("its directory lies elsewhere");
    return place;
}

DirectoryPlace findDirectory(const ArchiveSource& source) {
    if (source.size() < zip::endBytes) throw noArchive();
    const auto tailBytes = static_cast<std::size_t>(std::min<std::uint64_t>(
        source.size(), zip::endBytes + zip::maximumCommentBytes + zip::end64LocatorBytes));
    const auto tailOffset = source.size() - tailBytes;
    const auto tail = readArchive(source, tailOffset, tailBytes);
    const auto at = findEnd(tail);
    const auto* p = tail.data() + at;
    if (at >= zip::end64LocatorBytes) {
        const auto* locator = p - zip::end64LocatorBytes;
        if (zip::load<std::uint32_t>(locator) == zip::end64LocatorSignature)
            return readEnd64(source, locator, tailOffset + at - zip::end64LocatorBytes);
    }
    const auto count = zip::load<std::uint16_t>(p + 10);
    if (zip::load<std::uint32_t>(p + 4) != 0 || zip::load<std::uint16_t>(p + 8) != count) throw inParts();
    const DirectoryPlace place{zip::load<std::uint32_t>(p + 16), zip::load<std::uint32_t>(p + 12), count};
    if (place.offset + place.size > tailOffset + at) throw damagedArchive("its directory lies elsewhere");
    return place;
}

/// Walks the central directory's bytes.
class DirectoryParser {
  public:
    explicit DirectoryParser(const Bytes& bytes) : bytes_(bytes) {}

    ArchiveEntry next() {
        const auto* p = take(zip::centralHeaderBytes);
        if (zip::load<std::uint32_t>(p) != zip::centralHeaderSignature)
            throw damagedArchive("its directory is broken");
        ArchiveEntry entry;
        flags_ = zip::load<std::uint16_t>(p + 8);
        entry.method = zip::load<std::uint16_t>(p + 10);
        entry.time = zip::load<std::uint16_t>(p + 12);
        entry.date = zip::load<std::uint16_t>(p + 14);
        entry.crc = zip::load<std::uint32_t>(p + 16);
        entry.compressedSize = zip::load<std::uint32_t>(p + 20);
        entry.size = zip::load<std::uint32_t>(p + 24);
        entry.headerOffset = zip::load<std::uint32_t>(p + 42);
        const auto nameBytes = zip::load<std::uint16_t>(p + 28);
        const auto extraBytes = zip::load<std::uint16_t>(p + 30);
        const auto commentBytes = zip::load<std::uint16_t>(p + 32);
        if (zip::load<std::uint16_t>(p + 34) != 0) throw inParts();
        const auto madeOn = p[5];
        const auto attributes = zip::load<std::uint32_t>(p + 38);
        const auto* name = take(nameBytes);
        entry.name.assign(reinterpret_cast<const char*>(name), nameBytes);
        const auto* extra = take(extraBytes);
        readExtra(entry, {extra, extraBytes});
        take(commentBytes);
        setKind(entry, madeOn, attributes);
        check(entry);
        return entry;
    }
    bool isAtEnd() const { return at_ == bytes_.size(); }

  private:
    const std::uint8_t* take(std::size_t count) {
        if (count > bytes_.size() - at_) throw damagedArchive("its directory is cut off");
        at_ += count;
        return bytes_.data() + at_ - count;
    }

    static void readExtra(ArchiveEntry& entry, ByteView extra) {
        while (extra.size() >= 4) {
            const auto kind = zip::load<std::uint16_t>(extra.data());
            const std::size_t size = zip::load<std::uint16_t>(extra.data() + 2);
            if (size > extra.size() - 4) return;
            if (kind == zip::zip64Field) return readSizes64(entry, extra.subspan(4, size));
            extra = extra.subspan(4 + size);
        }
    }

    static void readSizes64(ArchiveEntry& entry, ByteView field) {
        for (auto* value : {&entry.size, &entry.compressedSize, &entry.headerOffset}) {
            if (*value != zip::elsewhere32) continue;
            if (field.size() < 8) throw damagedArchive("a ZIP64 field is cut off");
            *value = zip::load<std::uint64_t>(field.data());
            field = field.subspan(8);
        }
    }

    static void setKind(ArchiveEntry& entry, std::uint8_t madeOn, std::uint32_t attributes) {
        const bool isFolderName = entry.name.ends_with('/');
        if (isFolderName) {
            entry.kind = ArchiveEntryKind::directory;
            entry.name.pop_back();
        }
        if (madeOn != zip::madeOnUnix && madeOn != zip::madeOnMac) return;
        const auto mode = attributes >> 16;
        entry.permissions = mode & 0777;
        const auto type = mode & S_IFMT;
        if (type == S_IFLNK && !isFolderName) entry.kind = ArchiveEntryKind::link;
        const bool isKnown =
            type == 0 || type == (isFolderName ? S_IFDIR : S_IFREG) || entry.kind == ArchiveEntryKind::link;
        if (!isKnown)
            throw ArchiveError(localized("The archive holds \"%@\", which is neither a file nor a folder.",
                                         shownArchiveName(entry.name)));
    }

    void check(const ArchiveEntry& entry) const {
        if ((flags_ & zip::encryptedFlags) != 0)
            throw ArchiveError(localized("The archive is encrypted, and Dorvane can't decrypt it."));
        if (entry.method != zip::stored && entry.method != zip::deflated)
            throw ArchiveError(
                localized("The archive is compressed in a way that Dorvane can't read (method %ld). Pack it "
                          "with deflate.",
                          entry.method));
        if (entry.method == zip::stored && entry.size != entry.compressedSize)
            throw damagedArchive("the sizes of \"" + shownArchiveName(entry.name) + "\" differ");
        if (entry.size > maximumFileBytes)
            throw damagedArchive("\"" + shownArchiveName(entry.name) + "\" claims an impossible size");
        if (entry.kind == ArchiveEntryKind::directory && entry.size != 0)
            throw damagedArchive("the folder \"" + shownArchiveName(entry.name) + "\" has content");
    }

    const Bytes& bytes_;
    std::size_t at_ = 0;
    std::uint16_t flags_ = 0;
};

/// The same bytes under many names would be a small archive that unpacks to a large one.
void requireApart(const std::vector<ArchiveEntry>& entries, std::uint64_t directoryOffset) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> places;
    places.reserve(entries.size());
    for (const auto& entry : entries) {
        if (entry.headerOffset > directoryOffset ||
            entry.compressedSize > directoryOffset - entry.headerOffset)
            throw damagedArchive("\"" + shownArchiveName(entry.name) + "\" lies outside of it");
        places.emplace_back(entry.headerOffset, entry.headerOffset + zip::localHeaderBytes +
                                                    entry.name.size() + entry.compressedSize);
    }
    std::sort(places.begin(), places.end());
    for (std::size_t i = 0; i < places.size(); ++i)
        if (places[i].second > (i + 1 < places.size() ? places[i + 1].first : directoryOffset))
            throw damagedArchive("its entries lie over each other");
}

}  // namespace

ArchiveError damagedArchive(const std::string& reason) {
    return ArchiveError(localized("The archive is damaged: %@.", reason));
}

Bytes readArchive(const ArchiveSource& source, std::uint64_t offset, std::size_t count) {
    if (offset > source.size() || count > source.size() - offset) throw damagedArchive("it is cut off");
    Bytes bytes(count);
    for (std::size_t done = 0; done < count;) {
        const auto more = source.readAt(offset + done, std::span(bytes).subspan(done));
        if (more == 0) throw damagedArchive("it is cut off");
        done += more;
    }
    return bytes;
}

std::vector<ArchiveEntry> readArchiveDirectory(const ArchiveSource& source) {
    const auto place = findDirectory(source);
    if (place.size > maximumDirectoryBytes || place.count > zip::maximumEntries)
        throw ArchiveError(localized("The archive holds too many files."));
    const auto bytes = readArchive(source, place.offset, static_cast<std::size_t>(place.size));
    DirectoryParser parser(bytes);
    ArchiveEntryNames names;
    std::vector<ArchiveEntry> entries;
    while (!parser.isAtEnd()) {
        entries.push_back(parser.next());
        names.add(entries.back().name, entries.back().kind);
    }
    if (entries.size() != place.count) throw damagedArchive("its directory is incomplete");
    requireApart(entries, place.offset);
    return entries;
}

}  // namespace dorvane
