// SPDX-License-Identifier: Apache-2.0
// What a thread that packs or unpacks shares with the one that waits for it: how far, and whether to stop.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "runtime/Task.h"

namespace dorvane {

/// Safe on any thread. The worker calls `advance` at least once for each mebibyte, so that a cancellation
/// takes effect at once, also one from before the work began.
class ArchiveControl {
  public:
    void cancel() { isCancelled_ = true; }
    /// Throws CancellationError after `cancel`.
    void check() const {
        if (isCancelled_) throw CancellationError();
    }
    void expect(std::uint64_t total) { total_ = total; }
    void advance(std::uint64_t count) {
        done_ += count;
        check();
    }
    /// From 0 to 1, whatever was expected.
    double fraction() const {
        const std::uint64_t total = total_;
        return total == 0 ? 0 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total));
    }

  private:
    std::atomic<bool> isCancelled_ = false;
    std::atomic<std::uint64_t> done_ = 0;
    std::atomic<std::uint64_t> total_ = 0;
};

}  // namespace dorvane
