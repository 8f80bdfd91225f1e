// SPDX-License-Identifier: Apache-2.0
// ZIP archives byte by byte, also such as no honest program makes.
#pragma once

#include <sys/stat.h>
#include <zlib.h>

#include <optional>

#include "snapshots/ArchiveFormat.h"

namespace dorvane::test {

/// `history` is what the text may refer back to.
inline Bytes rawDeflated(std::string_view text, ByteView history = {}) {
    z_stream stream{};
    if (::deflateInit2(&stream, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::bad_alloc();
    if (!history.empty()) ::deflateSetDictionary(&stream, history.data(), static_cast<uInt>(history.size()));
    Bytes out(::deflateBound(&stream, text.size()) + 16);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    ::deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    ::deflateEnd(&stream);
    return out;
}

/// One entry; what is set here stands in the archive instead of the truth.
struct CraftedEntry {
    std::string name;
    std::string content = {};
    bool isDeflated = false;
    std::optional<unsigned> mode = S_IFREG | 0644;
    std::uint16_t flags = 0;
    std::optional<std::string> localName = {};
    std::optional<std::uint16_t> method = {};
    std::optional<std::uint32_t> crc = {};
    std::optional<std::uint32_t> size = {}, compressedSize = {}, offset = {};
    std::optional<Bytes> data = {};
    /// How much stands between name and data, by the local header only.
    std::uint16_t localExtraBytes = 0;
};

inline CraftedEntry craftedFolder(std::string name) {
    return {.name = std::move(name), .mode = S_IFDIR | 0755};
}
inline CraftedEntry craftedLink(std::string name, std::string target) {
    return {.name = std::move(name), .content = std::move(target), .mode = S_IFLNK | 0777};
}

void appendAll(Bytes& out, auto... values) { (zip::append(out, values), ...); }

inline Bytes craftedArchive(const std::vector<CraftedEntry>& entries, std::string_view comment = {},
                            std::optional<std::uint16_t> count = {},
                            std::optional<std::uint32_t> directory = {}) {
    Bytes out, central;
    for (const auto& entry : entries) {
        const auto data = entry.data         ? *entry.data
                          : entry.isDeflated ? rawDeflated(entry.content)
                                             : toBytes(entry.content);
        const auto offset = static_cast<std::uint32_t>(out.size());
        const auto content = asBytes(entry.content);
        const auto crc = static_cast<std::uint32_t>(::crc32_z(0, content.data(), content.size()));
        const auto common = [&](Bytes& header, const std::string& name, std::uint16_t extraBytes) {
            appendAll(header, zip::plainVersion, entry.flags,
                      entry.method.value_or(entry.isDeflated ? zip::deflated : zip::stored),
                      std::uint32_t{0x00210000},  // time and date
                      entry.crc.value_or(crc),
                      entry.compressedSize.value_or(static_cast<std::uint32_t>(data.size())),
                      entry.size.value_or(static_cast<std::uint32_t>(content.size())),
                      static_cast<std::uint16_t>(name.size()), extraBytes);
        };
        zip::append(out, zip::localHeaderSignature);
        const auto localName = entry.localName.value_or(entry.name);
        common(out, localName, entry.localExtraBytes);
        out.insert(out.end(), localName.begin(), localName.end());
        out.insert(out.end(), data.begin(), data.end());
        appendAll(central, zip::centralHeaderSignature,
                  static_cast<std::uint16_t>((entry.mode ? zip::madeOnUnix : 0) << 8 | 20));
        common(central, entry.name, 0);
        appendAll(central, std::uint32_t{0}, std::uint16_t{0}, entry.mode.value_or(0) << 16,
                  entry.offset.value_or(offset));
        central.insert(central.end(), entry.name.begin(), entry.name.end());
    }
    const auto place = directory.value_or(static_cast<std::uint32_t>(out.size()));
    const auto number = count.value_or(static_cast<std::uint16_t>(entries.size()));
    out.insert(out.end(), central.begin(), central.end());
    appendAll(out, zip::endSignature, std::uint32_t{0}, number, number,
              static_cast<std::uint32_t>(central.size()), place, static_cast<std::uint16_t>(comment.size()));
    out.insert(out.end(), comment.begin(), comment.end());
    return out;
}

}  // namespace dorvane::test
