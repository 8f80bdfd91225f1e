// SPDX-License-Identifier: Apache-2.0
// A text that one thread replaces and others read.
#pragma once

#include <mutex>
#include <string>

namespace dorvane {

/// Safe on any thread; the lock is held for the copy only. Starts empty.
class LockedString {
  public:
    std::string get() const {
        const std::lock_guard lock(lock_);
        return value_;
    }
    void set(std::string value) {
        const std::lock_guard lock(lock_);
        value_ = std::move(value);
    }

  private:
    mutable std::mutex lock_;
    std::string value_;
};

}  // namespace dorvane
