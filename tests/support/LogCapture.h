// SPDX-License-Identifier: Apache-2.0
// Gathers log lines for a test; while it lives nothing goes to standard error.
#pragma once

#include <mutex>
#include <vector>

#include "runtime/Logger.h"

namespace dorvane::test {

class LogCapture {
  public:
    LogCapture() {
        previous_ = installLogSink([this](const LogLine& line) {
            const std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { installLogSink(previous_); }

    std::vector<LogLine> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    bool contains(std::string_view part) const {
        for (const auto& line : lines())
            if (line.message.find(part) != std::string::npos) return true;
        return false;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
    LogSink previous_;
};

}  // namespace dorvane::test
