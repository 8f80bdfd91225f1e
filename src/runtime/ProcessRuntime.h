// SPDX-License-Identifier: Apache-2.0
// The runtime of a real process: an io_context run by main(), I/O threads and a pool for blocking work.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>
#include <vector>

#include "runtime/Runtime.h"

namespace dorvane {

/// Constructed on the main thread. Its threads end with it; spawned tasks must have been ended before.
class ProcessRuntime {
  public:
    ProcessRuntime();
    ~ProcessRuntime();

    const Runtime& runtime() const { return runtime_; }
    /// Runs the main thread's work until `stop`; returns on the main thread.
    void run();
    /// Ends `run`. From any thread.
    void stop();

  private:
    static constexpr int ioThreadCount = 2;
    static constexpr int backgroundThreadCount = 4;

    asio::io_context mainContext_{1};
    asio::io_context ioContext_;
    asio::executor_work_guard<asio::io_context::executor_type> mainWork_{mainContext_.get_executor()};
    asio::executor_work_guard<asio::io_context::executor_type> ioWork_{ioContext_.get_executor()};
    asio::thread_pool backgroundThreads_{backgroundThreadCount};
    MainActor main_{mainContext_.get_executor()};
    BackgroundPool background_{backgroundThreads_.get_executor()};
    SystemClock clock_{ioContext_.get_executor()};
    Runtime runtime_{main_, ioContext_.get_executor(), background_, clock_};
    std::vector<std::jthread> ioThreads_;
};

}  // namespace dorvane
