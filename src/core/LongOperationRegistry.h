// SPDX-License-Identifier: Apache-2.0
// Names the long work in progress, for the question before quitting.
#pragma once

#include <map>
#include <string>

#include "base/UUID.h"
#include "runtime/Signal.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only. One object is shared by all services of the process and passed to them.
class LongOperationRegistry {
  public:
    /// Labels of what is in progress.
    const std::map<UUID, std::string>& active() const { return active_; }
    Signal<> changed;

    /// Lists the operation under `label` while it runs, on every way out.
    template <typename T>
    Task<T> track(std::string label, Task<T> operation) {
        const Entry entry(*this, std::move(label));
        co_return co_await std::move(operation);
    }

  private:
    class Entry {
      public:
        Entry(LongOperationRegistry& registry, std::string label);
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        ~Entry();

      private:
        LongOperationRegistry& registry_;
        UUID id_ = UUID::random();
    };

    std::map<UUID, std::string> active_;
};

}  // namespace dorvane
