// SPDX-License-Identifier: Apache-2.0
// The packaged QEMU, and a runtime in real time.
#pragma once

#include <gtest/gtest.h>

#include "qemu/QEMUCapabilitiesCache.h"
#include "qemu/QEMURuntimeResources.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/TaskHandle.h"

namespace dorvane::test {

/// A developer's QEMU by its environment variables, or the one that scripts/qemu-runtime made. Throws when
/// there is none: these tests mean nothing without it.
inline QEMURuntimeResources realQEMU() {
    const auto environment = currentEnvironment();
    const auto cache = environment.find("XDG_CACHE_HOME");
    const Path root =
        cache != environment.end() ? Path(cache->second) : Path(environment.at("HOME")) / ".cache";
    const auto found = QEMURuntimeResources::locate(
        {QEMURuntimeResources::packaged(root / "dorvane" / "qemu-runtime")}, environment);
    if (!found) throw std::runtime_error("There is no QEMU here. Run scripts/qemu-runtime first.");
    return *found;
}

class RealTime {
  public:
    const Runtime& runtime() const { return process_.runtime(); }

    /// Not from inside itself: the inner run's end would stop the outer one, and leave its task behind.
    template <typename T>
    T run(Task<T> task) {
        if (std::exchange(isRunning_, true)) throw std::logic_error("run within a run");
        OneShot<T> outcome;
        auto handle =
            spawn(runtime().main.executor(), finish(deliver(std::move(task), outcome), process_), "real");
        process_.run();
        isRunning_ = false;
        return outcome.take();
    }

  private:
    static Task<void> finish(Task<void> task, ProcessRuntime& process) {
        co_await std::move(task);
        process.stop();
    }

    ProcessRuntime process_;
    bool isRunning_ = false;
};

/// A QEMU child; ended by its own number with the object.
class RealQEMUChild {
  public:
    RealQEMUChild(const QEMURuntimeResources& resources, std::vector<std::string> arguments) {
        ProcessCommand command{resources.executable, std::move(arguments)};
        command.environment = currentEnvironment();
        for (const auto& [name, value] : resources.environment) (*command.environment)[name] = value;
        command.standardError = StandardStream::inherit;
        child_ = ChildProcess::start(command);
    }
    RealQEMUChild(const RealQEMUChild&) = delete;
    RealQEMUChild& operator=(const RealQEMUChild&) = delete;
    ~RealQEMUChild() {
        child_->kill();
        child_->waitBlocking();
    }

    ChildProcess& process() { return *child_; }

  private:
    std::shared_ptr<ChildProcess> child_;
};

}  // namespace dorvane::test
