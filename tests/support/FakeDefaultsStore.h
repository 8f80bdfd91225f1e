// SPDX-License-Identifier: Apache-2.0
// Settings in memory.
#pragma once

#include <map>
#include <mutex>

#include "platform/DefaultsStore.h"
#include "runtime/Files.h"

namespace dorvane::test {

class FakeDefaultsStore : public DefaultsStore {
  public:
    JSON value(const std::string& key) const override {
        const std::lock_guard lock(mutex_);
        const auto found = values_.find(key);
        return found == values_.end() ? JSON() : found->second;
    }
    void set(const std::string& key, JSON value) override {
        if (failSets) throw FileError("write", "settings.json", ENOSPC);
        {
            const std::lock_guard lock(mutex_);
            values_.erase(key);
            if (!value.is_null()) values_.emplace(key, std::move(value));
        }
        changed(key);
    }
    std::vector<std::string> keys() const override {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> all;
        for (const auto& [key, value] : values_) all.push_back(key);
        return all;
    }

    bool failSets = false;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, JSON> values_;
};

}  // namespace dorvane::test
