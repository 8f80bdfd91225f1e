// SPDX-License-Identifier: Apache-2.0
#include "base/RandomBytes.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <random>

namespace dorvane {

void fillRandom(std::span<std::uint8_t> out) {
    if (RAND_bytes(out.data(), static_cast<int>(out.size())) == 1) return;
    std::random_device device;
    for (auto& byte : out) byte = static_cast<std::uint8_t>(device());
}

Bytes randomBytes(std::size_t count) {
    Bytes bytes(count);
    fillRandom(bytes);
    return bytes;
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
    if (a.size() != b.size() || a.empty()) return false;
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace dorvane
