// SPDX-License-Identifier: Apache-2.0
// The packaged QEMU with its disk tool, the demo guest's disk, and a runtime in real time.
#pragma once

#include "Child.h"
#include "base/Text.h"
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

/// What qemu-img prints. Throws its words when it fails.
inline std::string imageTool(std::vector<std::string> arguments, int alsoAccepted = 0) {
    static const auto tool = realQEMU().imageTool;
    const auto output = runBlocking({tool, std::move(arguments)});
    const auto& status = output.status;
    if (status.wasSignaled() || (status.code != 0 && status.code != alsoAccepted))
        throw std::runtime_error(std::string(asText(output.standardError)));
    return std::string(asText(output.standardOutput));
}

inline ProcessCommand emulator(std::vector<std::string> arguments) {
    const auto resources = realQEMU();
    ProcessCommand command{resources.executable, std::move(arguments)};
    command.environment = currentEnvironment();
    for (const auto& [name, value] : resources.environment) (*command.environment)[name] = value;
    command.standardError = StandardStream::inherit;
    return command;
}

struct RealQEMUChild : Child {
    explicit RealQEMUChild(std::vector<std::string> arguments)
        : Child(emulator(std::move(arguments)), SIGKILL) {}
};

/// Made by the first call on this host; others stand on it or copy it.
inline Path demoDisk() {
    const auto output = runBlocking({Path(DORVANE_SOURCE_DIR) / "scripts" / "demo-guest"});
    if (!output.status.isSuccess()) throw std::runtime_error(std::string(asText(output.standardError)));
    const auto text = trimmed(asText(output.standardOutput));
    return Path(text.substr(text.rfind('\n') + 1));
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

}  // namespace dorvane::test
