// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zlib.h>

#include "base/Bytes.h"

namespace dorvane::test {

/// One zlib stream that goes on over many pieces, each flushed as a server does it.
class Deflater {
  public:
    Deflater() { deflateInit(&stream_, Z_BEST_SPEED); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;
    ~Deflater() { deflateEnd(&stream_); }

    Bytes piece(ByteView plain) {
        Bytes out(plain.size() + 1'024);
        stream_.next_in = const_cast<Bytef*>(plain.data());
        stream_.avail_in = static_cast<uInt>(plain.size());
        stream_.next_out = out.data();
        stream_.avail_out = static_cast<uInt>(out.size());
        deflate(&stream_, Z_SYNC_FLUSH);
        return {out.data(), stream_.next_out};
    }

  private:
    z_stream stream_{};
};

}  // namespace dorvane::test
