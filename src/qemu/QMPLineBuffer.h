// SPDX-License-Identifier: Apache-2.0
// Cuts arriving bytes into lines.
#pragma once

#include <string>
#include <vector>

#include "base/Bytes.h"

namespace dorvane {

class QMPLineBuffer {
  public:
    /// QEMU's answers may be long, and nothing bounds a line in the protocol; beyond this the peer is not
    /// QEMU.
    static constexpr std::size_t maximumPendingBytes = 64 << 20;

    /// Adds bytes and returns the complete lines now held, in order, each without its line feed; empty ones
    /// are dropped.
    std::vector<std::string> append(ByteView bytes);
    /// Bytes that have arrived and not yet ended in a line feed.
    std::size_t pendingBytes() const { return buffer_.size(); }
    bool isOverflowing() const { return buffer_.size() > maximumPendingBytes; }

  private:
    std::string buffer_;
};

}  // namespace dorvane
