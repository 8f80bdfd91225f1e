// SPDX-License-Identifier: Apache-2.0
#include "base/SHA256.h"

#include <openssl/evp.h>

#include <array>

#include "base/Hex.h"

namespace dorvane {

struct SHA256::Context {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

SHA256::SHA256() : context_(std::make_unique<Context>()) {
    EVP_DigestInit_ex(context_->digest.get(), EVP_sha256(), nullptr);
}
SHA256::~SHA256() = default;

void SHA256::update(ByteView bytes) { EVP_DigestUpdate(context_->digest.get(), bytes.data(), bytes.size()); }

std::string SHA256::finishHex() {
    std::array<std::uint8_t, 32> digest{};
    EVP_DigestFinal_ex(context_->digest.get(), digest.data(), nullptr);
    return hexText(digest);
}

std::string SHA256::hex(ByteView bytes) {
    SHA256 hash;
    hash.update(bytes);
    return hash.finishHex();
}

}  // namespace dorvane
