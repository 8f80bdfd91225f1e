// SPDX-License-Identifier: Apache-2.0
#include "base/UUID.h"

#include <algorithm>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "base/RandomBytes.h"
#include "base/Text.h"

namespace dorvane {

UUID UUID::random() {
    UUID id;
    fillRandom(id.bytes_);
    id.bytes_[6] = static_cast<std::uint8_t>((id.bytes_[6] & 0x0F) | 0x40);
    id.bytes_[8] = static_cast<std::uint8_t>((id.bytes_[8] & 0x3F) | 0x80);
    return id;
}

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphen ? text[i] != '-' : !isASCIIHexDigit(text[i])) return std::nullopt;
    }
    const auto parsed = boost::uuids::string_generator{}(text.begin(), text.end());
    UUID id;
    std::copy(parsed.begin(), parsed.end(), id.bytes_.begin());
    return id;
}

std::string UUID::text() const {
    boost::uuids::uuid id;
    std::copy(bytes_.begin(), bytes_.end(), id.begin());
    return asciiUppercased(boost::uuids::to_string(id));
}

}  // namespace dorvane
