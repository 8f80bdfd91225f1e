// SPDX-License-Identifier: Apache-2.0
// The ZIP file format, as far as backups use it: PKWARE's APPNOTE.TXT 6.3.9, with ZIP64 and Info-ZIP's Unix
// modes.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <stdexcept>
#include <string>

#include "base/Bytes.h"

namespace dorvane {

/// Why an archive can't be read or made, as a sentence.
class ArchiveError : public std::runtime_error {
  public:
    explicit ArchiveError(const std::string& text) : std::runtime_error(text) {}
};

enum class ArchiveEntryKind { file, directory, link };

/// One entry of the central directory.
struct ArchiveEntry {
    /// Relative, with "/" between components and none at the end, directories included.
    std::string name;
    ArchiveEntryKind kind = ArchiveEntryKind::file;
    /// Permission bits; 0 when the archive doesn't tell.
    unsigned permissions = 0;
    std::uint16_t method = 0;
    std::uint16_t time = 0, date = 0;
    std::uint32_t crc = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;
    std::uint64_t headerOffset = 0;
};

namespace zip {

/// More than any backup has.
constexpr std::size_t maximumEntries = 1 << 20;
/// What makes zlib read and write deflate without a header.
constexpr int rawDeflateWindowBits = -15;

constexpr std::uint32_t localHeaderSignature = 0x04034b50;
constexpr std::uint32_t centralHeaderSignature = 0x02014b50;
constexpr std::uint32_t endSignature = 0x06054b50;
constexpr std::uint32_t end64Signature = 0x06064b50;
constexpr std::uint32_t end64LocatorSignature = 0x07064b50;

constexpr std::size_t localHeaderBytes = 30;
constexpr std::size_t centralHeaderBytes = 46;
constexpr std::size_t endBytes = 22;
constexpr std::size_t end64Bytes = 56;
constexpr std::size_t end64LocatorBytes = 20;
constexpr std::size_t maximumCommentBytes = 65535;

constexpr std::uint16_t stored = 0;
constexpr std::uint16_t deflated = 8;
constexpr std::uint16_t encryptedFlags = 0x0001 | 0x0040 | 0x2000;
constexpr std::uint16_t utf8Flag = 0x0800;
constexpr std::uint16_t zip64Field = 0x0001;
constexpr std::uint16_t plainVersion = 20;
constexpr std::uint16_t zip64Version = 45;
constexpr std::uint8_t madeOnUnix = 3;
constexpr std::uint8_t madeOnMac = 19;
constexpr std::uint32_t dosDirectory = 0x10;
/// In a field that is too small for its value, which stands in the ZIP64 field instead.
constexpr std::uint32_t elsewhere32 = 0xFFFFFFFF;
constexpr std::uint16_t elsewhere16 = 0xFFFF;

template <typename T>
void append(Bytes& out, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out.push_back(static_cast<std::uint8_t>(std::uint64_t{value} >> (8 * i)));
}

/// Little-endian; the caller has checked that the bytes are there.
template <typename T>
T load(const std::uint8_t* p) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) value |= std::uint64_t{p[i]} << (8 * i);
    return static_cast<T>(value);
}

}  // namespace zip
}  // namespace dorvane
