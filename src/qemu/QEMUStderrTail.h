// SPDX-License-Identifier: Apache-2.0
// The last words of a QEMU child.
#pragma once

#include <mutex>

#include "base/Bytes.h"
#include "runtime/Clock.h"
#include "runtime/Event.h"

namespace dorvane {

/// Keeps the end of what a child wrote to standard error. Filled on a queue, read on the main thread: safe on
/// any.
class QEMUStderrTail {
  public:
    static constexpr std::size_t capacity = 65536;

    void append(ByteView bytes);
    /// All of the child's output has arrived.
    void markEndOfFile() const { endOfFile_.set(); }
    /// Returns at the end of the output, or after `limit` when another process still holds the pipe.
    Task<void> waitForEndOfFile(Clock& clock, Duration limit) const;
    /// What is kept, with invalid UTF-8 repaired.
    std::string text() const;

  private:
    mutable std::mutex mutex_;
    Bytes data_;
    Event endOfFile_;
};

}  // namespace dorvane
