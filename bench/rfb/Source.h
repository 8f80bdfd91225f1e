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
    /// CPU seconds that the reading thread has spent on the server's part.
    virtual double serverSeconds() const { return 0; }
};

/// Reading is a copy of bytes that have just been written, with no system call: for comparing the decoders
/// alone. A recording is larger than a processor's cache; without the writing both would mostly wait for it.
/// One at a time.
std::unique_ptr<Source> memorySource(ByteView bytes);
/// A Unix socket that another thread writes into: for comparing all that a client does.
std::unique_ptr<Source> socketSource(ByteView bytes);

}  // namespace dorvane::bench
