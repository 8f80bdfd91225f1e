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
    bool takesFile = false;
};

void collect(const CLI::App& command, const std::string& path, std::vector<CommandWords>& into) {
    CommandWords words{path, {}, {}, {}};
    for (const auto* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) words.options.insert("--" + name);
        for (const auto& name : option->get_snames()) words.options.insert("-" + name);
        if (option->get_name() == "vm") words.takesMachine = true;
        if (option->get_name() == "file") words.takesFile = true;
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

/// The commands that have commands of their own, parted by `separator`.
std::string groupNames(const std::vector<CommandWords>& commands, const std::string& separator) {
    std::string text;
    for (const auto& words : commands)
        if (!words.path.empty() && !words.subcommands.empty())
            text += (text.empty() ? "" : separator) + words.path;
    return text;
}

constexpr auto machineNames =
    R"sh(dorvane list --json 2>/dev/null | sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p')sh";

std::string bashScript(const std::vector<CommandWords>& commands) {
    std::string cases;
    for (const auto& words : commands)
        cases += fmt::format("        \"{}\") words=\"{}\"; machines={}; files={} ;;\n", words.path,
                             wordList(words), words.takesMachine ? 1 : 0, words.takesFile ? 1 : 0);
    return fmt::format(
        R"sh(# Completion of dorvane for bash: source it, or put it into ~/.local/share/bash-completion/completions/dorvane
_dorvane() {{
    local current="${{COMP_WORDS[COMP_CWORD]}}" verb="" words="" machines=0 files=0 word
    for word in "${{COMP_WORDS[@]:1:$((COMP_CWORD - 1))}}"; do
        case "$word" in
            -*) ;;
            *) case "$verb" in
                   "" | {}) verb="${{verb:+$verb }}$word" ;;
               esac ;;
        esac
    done
    case "$verb" in
{}    esac
    local name
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    [[ "$current" != -* ]] || return 0
    if [ "$machines" = 1 ]; then
        while IFS= read -r name; do
            [[ "$name" == "$current"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
        done < <({})
    fi
    if [ "$files" = 1 ]; then
        while IFS= read -r name; do
            COMPREPLY+=("$(printf '%q' "$name")")
        done < <(compgen -f -- "$current")
    fi
    return 0
}}
complete -o default -F _dorvane dorvane
)sh",
        groupNames(commands, " | "), cases, machineNames);
}

std::string zshScript(const std::vector<CommandWords>& commands) {
    return "#compdef dorvane\n# Completion of dorvane for zsh, through its support for bash's functions.\n"
           "autoload -U +X bashcompinit && bashcompinit\n" +
           bashScript(commands);
}

/// When fish is to offer what may follow a command: "restore" and "snapshot restore" are two.
std::string fishCondition(const CommandWords& words, const std::string& groups) {
    if (words.path.empty()) return "__fish_use_subcommand";
    const auto blank = words.path.find(' ');
    const std::string seen = "__fish_seen_subcommand_from ";
    if (blank != std::string::npos)
        return seen + words.path.substr(0, blank) + "; and " + seen + words.path.substr(blank + 1);
    if (words.subcommands.empty()) return "not " + seen + groups + "; and " + seen + words.path;
    std::string children;
    for (const auto& name : words.subcommands) children += " " + name;
    return seen + words.path + "; and not __fish_seen_subcommand_from" + children;
}

/// For between double quotes.
std::string fishQuoted(std::string_view text) {
    std::string quoted;
    for (const char c : text) {
        if (c == '"' || c == '$' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted;
}

std::string fishScript(const std::vector<CommandWords>& commands) {
    std::string text =
        "# Completion of dorvane for fish: put it into ~/.config/fish/completions/dorvane.fish\n"
        "complete -c dorvane -f\n";
    const auto groups = groupNames(commands, " ");
    for (const auto& words : commands) {
        const auto start = fmt::format("complete -c dorvane -n '{}'", fishCondition(words, groups));
        for (const auto& [name, help] : words.helps)
            text += fmt::format("{} -a '{}' -d \"{}\"\n", start, name, fishQuoted(help));
        for (const auto& option : words.options)
            if (option.starts_with("--")) text += fmt::format("{} -l '{}'\n", start, option.substr(2));
        if (words.takesMachine) text += fmt::format("{} -a \"({})\"\n", start, fishQuoted(machineNames));
        if (words.takesFile) text += start + " -F\n";
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
