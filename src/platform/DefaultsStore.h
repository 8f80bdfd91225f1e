// SPDX-License-Identifier: Apache-2.0
// The user's settings as keys and values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/JSON.h"
#include "runtime/Signal.h"

namespace dorvane {

/// Safe on any thread. A value of another type than asked for reads as absent.
class DefaultsStore {
  public:
    virtual ~DefaultsStore() = default;

    /// The stored value, or null when the key was never written.
    virtual JSON value(const std::string& key) const = 0;
    /// Stores a value; null removes the key. Throws FileError when it can't be kept; the old value stays
    /// then.
    virtual void set(const std::string& key, JSON value) = 0;
    virtual std::vector<std::string> keys() const = 0;
    /// Tells the key of each change, on the thread that made it.
    Signal<const std::string&> changed;

    std::optional<bool> boolean(const std::string& key) const;
    std::optional<std::int64_t> integer(const std::string& key) const;
    std::optional<double> number(const std::string& key) const;
    std::optional<std::string> text(const std::string& key) const;
    void remove(const std::string& key) { set(key, nullptr); }
};

}  // namespace dorvane
