// SPDX-License-Identifier: Apache-2.0
// The last lines of the developer log, kept in memory.
#pragma once

#include <deque>
#include <mutex>

#include "core/VMLogReading.h"
#include "runtime/Clock.h"
#include "runtime/Logger.h"

namespace dorvane {

/// Safe on any thread. The program's log sink hands it every line.
class RecentLog : public VMLogReading {
  public:
    static constexpr std::size_t capacity = 5000;

    explicit RecentLog(Clock& clock) : clock_(clock) {}

    void note(const LogLine& line);
    /// "2026-11-21T08:43:19Z [VMService] Started VM: alpha" for each line that names the machine or its
    /// identifier.
    std::string lines(const VMRecordFields& vm) const override;

  private:
    struct Entry {
        Date date;
        LogLine line;
    };

    Clock& clock_;
    mutable std::mutex mutex_;
    std::deque<Entry> entries_;
};

}  // namespace dorvane
