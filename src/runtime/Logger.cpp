// SPDX-License-Identifier: Apache-2.0
#include "runtime/Logger.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <mutex>

#include "runtime/StandardErrorLog.h"

namespace dorvane {
namespace {

// The log is one of the few process-wide objects: a line may come from any thread at any time.
struct LogTarget {
    std::mutex mutex;
    LogSink sink;
    std::atomic<LogLevel> level{LogLevel::info};
};

LogTarget& target() {
    static LogTarget shared;
    return shared;
}

spdlog::logger& standardError() {
    static const auto logger = [] {
        auto made =
            std::make_shared<spdlog::logger>("dorvane", std::make_shared<spdlog::sinks::stderr_sink_mt>());
        made->set_pattern("%Y-%m-%dT%H:%M:%S.%e %^%l%$ %v");
        made->set_level(spdlog::level::trace);
        made->flush_on(spdlog::level::trace);
        return made;
    }();
    return *logger;
}

spdlog::level::level_enum spdlogLevel(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return spdlog::level::debug;
        case LogLevel::info:
            return spdlog::level::info;
        case LogLevel::error:
            return spdlog::level::err;
    }
    return spdlog::level::err;
}

}  // namespace

void writeToStandardError(const LogLine& line) {
    standardError().log(spdlogLevel(line.level), "[{}] {}", line.category, line.message);
}

bool Logger::isEnabled(LogLevel level) { return level >= target().level.load(); }

void Logger::write(LogLevel level, std::string message) const {
    if (!isEnabled(level)) return;
    auto& log = target();
    const std::lock_guard lock(log.mutex);
    const LogLine line{level, category_, std::move(message)};
    if (log.sink)
        log.sink(line);
    else
        writeToStandardError(line);
}

LogSink installLogSink(LogSink sink) {
    const std::lock_guard lock(target().mutex);
    return std::exchange(target().sink, std::move(sink));
}

void setLogLevel(LogLevel level) { target().level = level; }

}  // namespace dorvane
