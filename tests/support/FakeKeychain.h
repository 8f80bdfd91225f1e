// SPDX-License-Identifier: Apache-2.0
// Secrets in memory.
#pragma once

#include <atomic>
#include <map>
#include <mutex>

#include "platform/KeychainHelper.h"

namespace dorvane::test {

class FakeKeychain : public KeychainHelper {
  public:
    std::optional<Bytes> read(const std::string& service, const std::string& account) override {
        const std::lock_guard lock(mutex_);
        const auto found = items_.find({service, account});
        return found == items_.end() ? std::nullopt : std::optional(found->second);
    }
    bool save(const std::string& service, const std::string& account, ByteView secret) override {
        const std::lock_guard lock(mutex_);
        if (refuses) return false;
        items_[{service, account}] = Bytes(secret.begin(), secret.end());
        return true;
    }
    void remove(const std::string& service, const std::string& account) override {
        const std::lock_guard lock(mutex_);
        items_.erase({service, account});
    }

    std::atomic<bool> refuses = false;

  private:
    std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, Bytes> items_;
};

}  // namespace dorvane::test
