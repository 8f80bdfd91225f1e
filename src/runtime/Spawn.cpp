// SPDX-License-Identifier: Apache-2.0
#include "runtime/Spawn.h"

#include <spawn.h>
#include <unistd.h>
#include <csignal>

extern char** environ;

namespace dorvane {
namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

class SpawnAttributes {
  public:
    SpawnAttributes() {
        ::posix_spawnattr_init(&attributes_);
        sigset_t defaults, none;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigemptyset(&none);
        ::posix_spawnattr_setsigdefault(&attributes_, &defaults);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        // A terminal's Ctrl-C goes to the whole group: what it means for the children is the parent's to say.
        ::posix_spawnattr_setpgroup(&attributes_, 0);
        ::posix_spawnattr_setflags(&attributes_,
                                   POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    const posix_spawnattr_t* get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_;
};

class SpawnActions {
  public:
    explicit SpawnActions(const SpawnStreams& streams) {
        ::posix_spawn_file_actions_init(&actions_);
        place(streams.input, STDIN_FILENO);
        place(streams.output, STDOUT_FILENO);
        place(streams.error, STDERR_FILENO);
#ifdef __GLIBC__
        // Descriptors are close-on-exec from birth; this covers those that a library opened otherwise.
        ::posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
#endif
    }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    void place(int from, int to) { ::posix_spawn_file_actions_adddup2(&actions_, from, to); }
    posix_spawn_file_actions_t actions_;
};

}  // namespace

int spawnProgram(const ProcessCommand& command, const SpawnStreams& streams) {
    std::vector<std::string> arguments{command.executable.string()};
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    std::vector<std::string> environment;
    if (command.environment)
        for (const auto& [key, value] : *command.environment)
            environment.emplace_back(key).append("=").append(value);
    auto argumentPointers = pointers(arguments);
    auto environmentPointers = pointers(environment);
    const SpawnAttributes attributes;
    const SpawnActions actions(streams);
    pid_t pid = 0;
    const int number =
        ::posix_spawn(&pid, command.executable.c_str(), actions.get(), attributes.get(),
                      argumentPointers.data(), command.environment ? environmentPointers.data() : environ);
    if (number != 0) throw POSIXError("Could not start " + command.executable.string(), number);
    return pid;
}

}  // namespace dorvane
