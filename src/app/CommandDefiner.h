// SPDX-License-Identifier: Apache-2.0
// How the commands of the program are put together from words, options and a request.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>

#include "app/CommandLine.h"

namespace dorvane {

/// The values that the options of one command write into, alive for as long as its callback.
struct CommandValues {
    ServiceCall call;
    std::string vm, name, snapshot, output = "screenshot.png", key, value, shell, file, url, duration;
    std::string os = "windows", username, image, storage;
    std::vector<std::string> words;
    std::int64_t cpus = 0, memory = 0, disk = 0, lines = 50, minutes = 0, keep = -1;
    double timeout = 60;
    int port = 0;
    bool flag = false, confirmed = false, sandbox = false, isolated = false;
};
using Values = std::shared_ptr<CommandValues>;

inline Values makeValues() { return std::make_shared<CommandValues>(); }

/// Adds commands to a parser that is then used once; `request` outlives the parsing.
class Definer {
  public:
    explicit Definer(CommandRequest& request) : request_(request) {}

    /// One command whose callback builds a ServiceCall. `build` may throw CLI::ValidationError.
    CLI::App* call(CLI::App& parent, const std::string& verb, const std::string& help, const Values& values,
                   std::function<void(CommandValues&)> build);
    /// One command about one machine whose only parameter is the machine, named like its method.
    CLI::App* machineCall(CLI::App& parent, const std::string& verb, const std::string& help,
                          const std::string& done);

    CommandRequest& request() const { return request_; }

  private:
    CommandRequest& request_;
};

CLI::Option* addMachine(CLI::App& command, const Values& values);
/// Has the user asked first, unless `--yes` was given; `words` are the command that needs no question.
void askFirst(CommandValues& values, const std::string& question, const std::vector<std::string>& words);
void addYes(CLI::App& command, const Values& values);
/// The words as a shell takes them back.
std::string commandText(const std::vector<std::string>& words);

// The groups that the commands are put together from.
void defineCopies(CLI::App& app, Definer& define);
void defineSnapshots(CLI::App& app, Definer& define);
void defineBackups(CLI::App& app, Definer& define);

}  // namespace dorvane
