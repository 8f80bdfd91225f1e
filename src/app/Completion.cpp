// SPDX-License-Identifier: Apache-2.0
#include "app/Completion.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <set>
#include <vector>

namespace dorvane {
namespace {

/// One command by its words ("", "start", "snapshot take") with what may follow.
struct CommandWords {
    std::string path;
    std::vector<std::string> subcommands;
    std::vector<std::pair<std::string, std::string>> helps;  // of the subcommands
    std::set<std::string> options;
    bool takesMachine = false;
};

void collect(const CLI::App& command, const std::string& path, std::vector<CommandWords>& into) {
    CommandWords words{path, {}, {}, {}, false};
    for (const auto* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) words.options.insert("--" + name);
        for (const auto& name : option->get_snames()) words.options.insert("-" + name);
        if (option->get_name() == "vm") words.takesMachine = true;
    }
    const auto children = command.get_subcommands(std::function<bool(const CLI::App*)>{});
    for (const auto* child : children) {
        words.subcommands.push_back(child->get_name());
        words.helps.emplace_back(child->get_name(), child->get_description());
    }
    into.push_back(std::move(words));
    for (const auto* child : children)
        collect(*child, (path.empty() ? "" : path + " ") + child->get_name(), into);
}

std::string wordList(const CommandWords& words) {
    std::string text;
    for (const auto& name : words.subcommands) text += name + " ";
    for (const auto& name : words.options) text += name + " ";
    return text.empty() ? text : text.substr(0, text.size() - 1);
}

constexpr auto machineNames =
    R"sh(dorvane list --json 2>/dev/null | sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p')sh";

std::string bashScript(const std::vector<CommandWords>& commands) {
    std::string cases;
    for (const auto& words : commands)
        cases += fmt::format("        \"{}\") words=\"{}\"; machines={} ;;\n", words.path, wordList(words),
                             words.takesMachine ? 1 : 0);
    return fmt::format(
        R"sh(# Completion of dorvane for bash: source it, or put it into ~/.local/share/bash-completion/completions/dorvane
_dorvane() {{
    local current="${{COMP_WORDS[COMP_CWORD]}}" path="" words="" machines=0 word
    for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
        case "$word" in
            -*) ;;
            *) case "$path" in
                   "" | snapshot | settings | mcp) path="${{path:+$path }}$word" ;;
               esac ;;
        esac
    done
    case "$path" in
{}    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    if [ "$machines" = 1 ] && [[ "$current" != -* ]]; then
        local name
        while IFS= read -r name; do
            [[ "$name" == "$current"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
        done < <({})
    fi
}}
complete -o default -F _dorvane dorvane
)sh",
        cases, machineNames);
}

std::string zshScript(const std::vector<CommandWords>& commands) {
    return "#compdef dorvane\n# Completion of dorvane for zsh, through its support for bash's functions.\n"
           "autoload -U +X bashcompinit && bashcompinit\n" +
           bashScript(commands);
}

std::string fishScript(const std::vector<CommandWords>& commands) {
    std::string text =
        "# Completion of dorvane for fish: put it into ~/.config/fish/completions/dorvane.fish\n"
        "complete -c dorvane -f\n";
    for (const auto& words : commands) {
        const std::string condition = words.path.empty() ? "__fish_use_subcommand"
                                                         : "__fish_seen_subcommand_from " +
                                                               words.path.substr(words.path.rfind(' ') + 1);
        for (const auto& [name, help] : words.helps)
            text += fmt::format("complete -c dorvane -n '{}' -a '{}' -d \"{}\"\n", condition, name, help);
        for (const auto& option : words.options)
            if (option.starts_with("--"))
                text += fmt::format("complete -c dorvane -n '{}' -l '{}'\n", condition, option.substr(2));
        if (words.takesMachine)
            text += fmt::format("complete -c dorvane -n '{}' -a \"({})\"\n", condition, machineNames);
    }
    return text;
}

}  // namespace

std::optional<std::string> completionScriptFor(const CLI::App& app, const std::string& shell) {
    std::vector<CommandWords> commands;
    collect(app, "", commands);
    if (shell == "bash") return bashScript(commands);
    if (shell == "zsh") return zshScript(commands);
    if (shell == "fish") return fishScript(commands);
    return std::nullopt;
}

}  // namespace dorvane
