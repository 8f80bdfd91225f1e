// SPDX-License-Identifier: Apache-2.0
#include "rfb/Recording.h"

#include <fstream>
#include <iterator>

namespace dorvane::bench {
namespace {

constexpr std::string_view magic = "DRFB";
constexpr std::size_t headBytes = 12;

}  // namespace

Recording Recording::load(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    const Bytes content{std::istreambuf_iterator<char>(in), {}};
    if (content.size() < headBytes || !asText(content).starts_with(magic))
        throw std::runtime_error(file.string() + " is not a recording");
    return {static_cast<int>(loadBE32(content.data() + 4)), static_cast<int>(loadBE32(content.data() + 8)),
            Bytes(content.begin() + headBytes, content.end())};
}

void Recording::save(const std::filesystem::path& file) const {
    Bytes content = toBytes(magic);
    appendBE32(content, static_cast<std::uint32_t>(width));
    appendBE32(content, static_cast<std::uint32_t>(height));
    content.insert(content.end(), stream.begin(), stream.end());
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(content.data()), std::streamsize(content.size()));
    if (!out.flush()) throw std::runtime_error("could not write " + file.string());
}

}  // namespace dorvane::bench
