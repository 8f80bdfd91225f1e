// SPDX-License-Identifier: Apache-2.0
#include "runtime/ProcessRuntime.h"

#include "runtime/Logger.h"

namespace dorvane {
namespace {

/// The catch-all of a thread that runs handlers: one handler's exception is logged and the rest go on.
void runHandlers(asio::io_context& context) {
    for (;;) {
        try {
            context.run();
            return;
        } catch (const std::exception& error) {
            Logger("Runtime").error("A handler let an exception out: %{public}s", error.what());
        }
    }
}

}  // namespace

ProcessRuntime::ProcessRuntime() {
    for (int i = 0; i < ioThreadCount; ++i) ioThreads_.emplace_back([this] { runHandlers(ioContext_); });
}

ProcessRuntime::~ProcessRuntime() {
    mainWork_.reset();
    ioWork_.reset();
    ioContext_.stop();
    ioThreads_.clear();
    backgroundThreads_.join();
}

void ProcessRuntime::run() {
    mainContext_.restart();
    runHandlers(mainContext_);
}

void ProcessRuntime::stop() { mainContext_.stop(); }

}  // namespace dorvane
