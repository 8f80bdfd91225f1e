// SPDX-License-Identifier: Apache-2.0
// SHA-256 (FIPS 180-4), at once or piece by piece.
#pragma once

#include <memory>
#include <string>

#include "base/Bytes.h"

namespace dorvane {

class SHA256 {
  public:
    SHA256();
    ~SHA256();
    SHA256(const SHA256&) = delete;
    SHA256& operator=(const SHA256&) = delete;

    void update(ByteView bytes);
    /// The digest as 64 lower-case hexadecimal characters; the object is spent afterwards.
    std::string finishHex();

    static std::string hex(ByteView bytes);
    static std::string hex(std::string_view text) { return hex(asBytes(text)); }

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace dorvane
