// SPDX-License-Identifier: Apache-2.0
#include "app/CommandDefiner.h"

#include "app/CommandPrinting.h"

namespace dorvane {
namespace {

std::string shellQuoted(const std::string& word) {
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:=@%+,";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) return word;
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

CLI::App* Definer::call(CLI::App& parent, const std::string& verb, const std::string& help,
                        const Values& values, std::function<void(CommandValues&)> build) {
    auto* command = parent.add_subcommand(verb, help);
    command->add_flag("--json", values->call.json, "Print the result as JSON");
    command->callback([&request = request_, values, build = std::move(build)] {
        build(*values);
        request = values->call;
    });
    return command;
}

CLI::App* Definer::machineCall(CLI::App& parent, const std::string& verb, const std::string& help,
                               const std::string& done) {
    const auto values = makeValues();
    auto* command = call(parent, verb, help, values, [verb, done](CommandValues& v) {
        v.call.method = verb;
        v.call.params["vm"] = v.vm;
        v.call.print = printSentence(done);
    });
    addMachine(*command, values);
    return command;
}

CLI::Option* addMachine(CLI::App& command, const Values& values) {
    return command.add_option("vm", values->vm, "Name or UUID of the machine")->required();
}

void askFirst(CommandValues& values, const std::string& question, const std::vector<std::string>& words) {
    if (values.confirmed) return;
    values.call.question = question;
    values.call.unattendedCommand = commandText(words);
}

void addYes(CLI::App& command, const Values& values) {
    command.add_flag("-y,--yes", values->confirmed, "Don't ask");
}

std::string commandText(const std::vector<std::string>& words) {
    std::string text = "dorvane";
    for (const auto& word : words) text += " " + shellQuoted(word);
    return text;
}

}  // namespace dorvane
