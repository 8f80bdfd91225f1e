// SPDX-License-Identifier: Apache-2.0
#include "snapshots/ArchiveWriter.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include "base/Localized.h"
#include "runtime/FileDescriptor.h"
#include "snapshots/ArchiveWriterSegments.h"
#include "snapshots/ArchiveZeros.h"

namespace dorvane {
namespace {

constexpr std::size_t bufferBytes = 1 << 20;
/// Above it both sizes stand in a ZIP64 field from the beginning: a file that doesn't compress grows a
/// little.
constexpr std::uint64_t largestPlainFile = 0x7FFFFFFF;
/// An empty last block: the segments before it don't know which of them is the last.
constexpr std::uint8_t endOfStream[] = {0x03, 0x00};

bool isLarge(const ArchiveEntry& entry) {
    return entry.kind == ArchiveEntryKind::file && entry.size > largestPlainFile;
}

void setTime(ArchiveEntry& entry, std::time_t modified) {
    constexpr int firstYear = 80, lastYear = 207;
    struct tm local {};
    ::localtime_r(&modified, &local);
    if (local.tm_year < firstYear || local.tm_year > lastYear)
        local = {0, 0, 0, 1, 0, firstYear, 0, 0, 0, 0, nullptr};
    entry.time =
        static_cast<std::uint16_t>(local.tm_hour << 11 | local.tm_min << 5 | std::min(local.tm_sec, 59) / 2);
    entry.date = static_cast<std::uint16_t>((local.tm_year - firstYear) << 9 | (local.tm_mon + 1) << 5 |
                                            local.tm_mday);
}

std::string storedName(const ArchiveEntry& entry) {
    return entry.kind == ArchiveEntryKind::directory ? entry.name + "/" : entry.name;
}

std::uint32_t externalAttributes(const ArchiveEntry& entry) {
    const std::uint32_t type = entry.kind == ArchiveEntryKind::directory ? S_IFDIR
                               : entry.kind == ArchiveEntryKind::link    ? S_IFLNK
                                                                         : S_IFREG;
    const std::uint32_t dos = entry.kind == ArchiveEntryKind::directory ? zip::dosDirectory : 0;
    return (type | entry.permissions) << 16 | dos;
}

/// The fields that both headers share, from the version on.
void appendCommon(Bytes& out, const ArchiveEntry& entry, bool has64, bool sizesElsewhere,
                  std::size_t extraBytes) {
    zip::append(out, has64 ? zip::zip64Version : zip::plainVersion);
    zip::append(out, zip::utf8Flag);
    zip::append(out, entry.method);
    zip::append(out, entry.time);
    zip::append(out, entry.date);
    zip::append(out, entry.crc);
    zip::append(out, sizesElsewhere ? zip::elsewhere32 : static_cast<std::uint32_t>(entry.compressedSize));
    zip::append(out, sizesElsewhere ? zip::elsewhere32 : static_cast<std::uint32_t>(entry.size));
    zip::append(out, static_cast<std::uint16_t>(storedName(entry).size()));
    zip::append(out, static_cast<std::uint16_t>(extraBytes));
}

Bytes extra64(const ArchiveEntry& entry, bool hasSizes, bool hasOffset) {
    Bytes values;
    if (hasSizes) {
        zip::append(values, entry.size);
        zip::append(values, entry.compressedSize);
    }
    if (hasOffset) zip::append(values, entry.headerOffset);
    Bytes out;
    if (values.empty()) return out;
    zip::append(out, zip::zip64Field);
    zip::append(out, static_cast<std::uint16_t>(values.size()));
    out.insert(out.end(), values.begin(), values.end());
    return out;
}

Bytes localHeader(const ArchiveEntry& entry) {
    const auto extra = extra64(entry, isLarge(entry), false);
    const auto name = storedName(entry);
    Bytes out;
    zip::append(out, zip::localHeaderSignature);
    appendCommon(out, entry, isLarge(entry), isLarge(entry), extra.size());
    out.insert(out.end(), name.begin(), name.end());
    out.insert(out.end(), extra.begin(), extra.end());
    return out;
}

Bytes centralHeader(const ArchiveEntry& entry) {
    const bool hasFarOffset = entry.headerOffset >= zip::elsewhere32;
    const auto extra = extra64(entry, isLarge(entry), hasFarOffset);
    const auto name = storedName(entry);
    const bool has64 = !extra.empty();
    Bytes out;
    zip::append(out, zip::centralHeaderSignature);
    zip::append(out, static_cast<std::uint16_t>(zip::madeOnUnix << 8 | zip::zip64Version));
    appendCommon(out, entry, has64, isLarge(entry), extra.size());
    zip::append(out, std::uint16_t{0});  // comment
    zip::append(out, std::uint16_t{0});  // disk
    zip::append(out, std::uint16_t{0});  // internal attributes
    zip::append(out, externalAttributes(entry));
    zip::append(out, hasFarOffset ? zip::elsewhere32 : static_cast<std::uint32_t>(entry.headerOffset));
    out.insert(out.end(), name.begin(), name.end());
    out.insert(out.end(), extra.begin(), extra.end());
    return out;
}

Bytes endOfArchive(std::uint64_t count, std::uint64_t offset, std::uint64_t size) {
    Bytes out;
    const bool has64 = count >= zip::elsewhere16 || offset >= zip::elsewhere32 || size >= zip::elsewhere32;
    if (has64) {
        zip::append(out, zip::end64Signature);
        zip::append(out, std::uint64_t{zip::end64Bytes - 12});
        zip::append(out, static_cast<std::uint16_t>(zip::madeOnUnix << 8 | zip::zip64Version));
        zip::append(out, zip::zip64Version);
        zip::append(out, std::uint64_t{0});  // disks
        zip::append(out, count);
        zip::append(out, count);
        zip::append(out, size);
        zip::append(out, offset);
        zip::append(out, zip::end64LocatorSignature);
        zip::append(out, std::uint32_t{0});
        zip::append(out, offset + size);
        zip::append(out, std::uint32_t{1});
    }
    const auto small16 = [&](std::uint64_t value) {
        return has64 ? zip::elsewhere16 : static_cast<std::uint16_t>(value);
    };
    const auto small32 = [&](std::uint64_t value) {
        return has64 ? zip::elsewhere32 : static_cast<std::uint32_t>(value);
    };
    zip::append(out, zip::endSignature);
    zip::append(out, std::uint32_t{0});  // disks
    zip::append(out, small16(count));
    zip::append(out, small16(count));
    zip::append(out, small32(size));
    zip::append(out, small32(offset));
    zip::append(out, std::uint16_t{0});  // comment
    return out;
}

/// Tells for each segment of a file, in order, whether it lies in a hole.
class HoleFinder {
  public:
    HoleFinder(int fd, std::uint64_t size) : fd_(fd), size_(size) {}

    bool isHole(std::uint64_t begin, std::uint64_t end) {
        if (begin >= dataEnd_) find(begin);
        return end <= dataBegin_;
    }

  private:
    void find(std::uint64_t from) {
        const auto data = ::lseek(fd_, static_cast<off_t>(from), SEEK_DATA);
        // Nothing but a hole is left, or this file system doesn't tell its holes.
        dataBegin_ = data >= 0 ? static_cast<std::uint64_t>(data) : errno == ENXIO ? size_ : from;
        const auto hole = data < 0 ? -1 : ::lseek(fd_, data, SEEK_HOLE);
        dataEnd_ = hole < 0 ? size_ : static_cast<std::uint64_t>(hole);
    }

    int fd_;
    std::uint64_t size_;
    std::uint64_t dataBegin_ = 0, dataEnd_ = 0;
};

Bytes readSegment(int fd, std::uint64_t offset, std::size_t size, const Path& path) {
    Bytes content(size);
    for (std::size_t done = 0; done < size;) {
        const auto count = ::pread(fd, content.data() + done, size - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        // A file that became shorter meanwhile is being changed by somebody.
        if (count <= 0) throw FileError("read", path, count < 0 ? errno : EBUSY);
        done += static_cast<std::size_t>(count);
    }
    return content;
}

}  // namespace

ArchiveEntry ArchiveWriter::begin(const std::string& name, ArchiveEntryKind kind, unsigned permissions,
                                  std::time_t modified) {
    control_.check();
    if (entries_.size() >= zip::maximumEntries)
        throw ArchiveError(localized("There are too many files for one archive."));
    names_.add(name, kind);
    ArchiveEntry entry;
    entry.name = name;
    entry.kind = kind;
    entry.permissions = permissions & 07777;
    entry.headerOffset = flushed_ + buffer_.size();
    setTime(entry, modified);
    return entry;
}

void ArchiveWriter::addDirectory(const std::string& name, const struct stat& info) {
    addWhole(begin(name, ArchiveEntryKind::directory, info.st_mode, info.st_mtime), {});
}

void ArchiveWriter::addLink(const std::string& name, std::string_view target, const struct stat& info) {
    addWhole(begin(name, ArchiveEntryKind::link, info.st_mode, info.st_mtime), asBytes(target));
}

void ArchiveWriter::addText(const std::string& name, std::string_view text, std::time_t modified) {
    addWhole(begin(name, ArchiveEntryKind::file, 0644, modified), asBytes(text));
}

void ArchiveWriter::addWhole(ArchiveEntry entry, ByteView content) {
    entry.size = entry.compressedSize = content.size();
    entry.crc = static_cast<std::uint32_t>(::crc32_z(0, content.data(), content.size()));
    append(localHeader(entry));
    append(content);
    entries_.push_back(std::move(entry));
}

void ArchiveWriter::addFile(const std::string& name, const Path& source) {
    const FileDescriptor fd(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0) throw FileError("read", source, errno);
    if (!S_ISREG(info.st_mode)) throw FileError("read", source, EINVAL);
    auto entry = begin(name, ArchiveEntryKind::file, info.st_mode, info.st_mtime);
    entry.size = static_cast<std::uint64_t>(info.st_size);
    if (entry.size == 0) return addWhole(std::move(entry), {});
    entry.method = zip::deflated;
    append(localHeader(entry));
    const auto dataOffset = flushed_ + buffer_.size();
    addSegments(entry, fd.get(), source);
    append(endOfStream);
    entry.compressedSize = flushed_ + buffer_.size() - dataOffset;
    // The header is complete only now.
    flush();
    writeAt(entry.headerOffset, localHeader(entry));
    entries_.push_back(std::move(entry));
}

void ArchiveWriter::addSegments(ArchiveEntry& entry, int source, const Path& path) {
    HoleFinder holes(source, entry.size);
    ArchiveSegmentQueue segments([&](const ArchiveSegment& segment) {
        const bool isZeros = segment.compressed.empty();
        append(isZeros ? deflatedZeros() : ByteView(segment.compressed));
        entry.crc = isZeros ? crcWithZeros(entry.crc)
                            : static_cast<std::uint32_t>(::crc32_combine(entry.crc, segment.crc,
                                                                         static_cast<z_off_t>(segment.size)));
    });
    for (std::uint64_t offset = 0; offset < entry.size; offset += archiveSegmentBytes) {
        const auto end = std::min<std::uint64_t>(offset + archiveSegmentBytes, entry.size);
        const bool isWhole = end - offset == archiveSegmentBytes;
        if (isWhole && holes.isHole(offset, end)) {
            segments.addZeros();
            control_.check();
            continue;
        }
        auto content = readSegment(source, offset, static_cast<std::size_t>(end - offset), path);
        if (isWhole && isAllZero(content))
            segments.addZeros();
        else
            segments.add(std::move(content));
        control_.advance(end - offset);
    }
    segments.finish();
}

void ArchiveWriter::finish() {
    const auto offset = flushed_ + buffer_.size();
    for (const auto& entry : entries_) append(centralHeader(entry));
    append(endOfArchive(entries_.size(), offset, flushed_ + buffer_.size() - offset));
    flush();
    control_.check();
    if (::fsync(fd_) != 0) throw FileError("write", path_, errno);
}

void ArchiveWriter::append(ByteView bytes) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    if (buffer_.size() >= bufferBytes) flush();
}

void ArchiveWriter::flush() {
    writeAt(flushed_, buffer_);
    flushed_ += buffer_.size();
    buffer_.clear();
}

void ArchiveWriter::writeAt(std::uint64_t offset, ByteView bytes) {
    while (!bytes.empty()) {
        const auto count = ::pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw FileError("write", path_, errno);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

}  // namespace dorvane
