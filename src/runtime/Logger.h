// SPDX-License-Identifier: Apache-2.0
// Developer log lines, one category a service, under the subsystem "com.dorvane.app".
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/Localized.h"

namespace dorvane {

enum class LogLevel { debug, info, error };

struct LogLine {
    LogLevel level;
    std::string category;
    std::string message;
};

/// A cheap value; safe on any thread. Messages carry placeholders as `formatted` takes them.
class Logger {
  public:
    explicit Logger(std::string category) : category_(std::move(category)) {}

    template <typename... Arguments>
    void debug(std::string_view message, const Arguments&... arguments) const {
        if (isEnabled(LogLevel::debug)) write(LogLevel::debug, formatted(message, arguments...));
    }
    template <typename... Arguments>
    void info(std::string_view message, const Arguments&... arguments) const {
        write(LogLevel::info, formatted(message, arguments...));
    }
    template <typename... Arguments>
    void error(std::string_view message, const Arguments&... arguments) const {
        write(LogLevel::error, formatted(message, arguments...));
    }

  private:
    static bool isEnabled(LogLevel level);
    void write(LogLevel level, std::string message) const;

    std::string category_;
};

/// Called for each line, one at a time, on the thread that logs.
using LogSink = std::function<void(const LogLine&)>;

/// Where lines go. Absent means standard error through spdlog. Returns the sink that stood there before.
LogSink installLogSink(LogSink sink);
/// Lines below this level are dropped; starts at info.
void setLogLevel(LogLevel level);

}  // namespace dorvane
