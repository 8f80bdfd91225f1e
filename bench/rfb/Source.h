// SPDX-License-Identifier: Apache-2.0
// Where a player reads a recording from.
#pragma once

#include <sys/uio.h>

#include <memory>
#include <span>

#include "base/Bytes.h"

namespace dorvane::bench {

/// Reads like a descriptor: libvncclient through `read` on `descriptor`, this client through `readv`.
class Source {
  public:
    virtual ~Source() = default;
    virtual int descriptor() const = 0;
    /// 0 at the end.
    virtual std::size_t readv(std::span<const iovec> spans) = 0;
};

/// Reading is a copy from memory at once, with no system call: for comparing the decoders alone. One at a
/// time.
std::unique_ptr<Source> memorySource(ByteView bytes);
/// A Unix socket that another thread writes into: for comparing all that a client does.
std::unique_ptr<Source> socketSource(ByteView bytes);

}  // namespace dorvane::bench
