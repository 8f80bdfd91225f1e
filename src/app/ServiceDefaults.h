// SPDX-License-Identifier: Apache-2.0
// Settings that hold for one run of the service only.
#pragma once

#include <map>
#include <mutex>

#include "platform/DefaultsStore.h"

namespace dorvane {

/// Answers some keys itself and passes everything else to the user's own store. Changing an overridden key
/// changes the user's store and ends the override.
class ServiceDefaults : public DefaultsStore {
  public:
    ServiceDefaults(DefaultsStore& underlying, std::map<std::string, JSON> overrides)
        : underlying_(underlying), overrides_(std::move(overrides)) {}

    JSON value(const std::string& key) const override {
        const std::lock_guard lock(mutex_);
        const auto found = overrides_.find(key);
        return found == overrides_.end() ? underlying_.value(key) : found->second;
    }
    void set(const std::string& key, JSON value) override {
        underlying_.set(key, std::move(value));
        {
            const std::lock_guard lock(mutex_);
            overrides_.erase(key);
        }
        changed(key);
    }
    std::vector<std::string> keys() const override { return underlying_.keys(); }

  private:
    DefaultsStore& underlying_;
    mutable std::mutex mutex_;
    std::map<std::string, JSON> overrides_;
};

}  // namespace dorvane
