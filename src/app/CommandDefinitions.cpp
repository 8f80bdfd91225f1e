// SPDX-License-Identifier: Apache-2.0
#include "app/CommandDefinitions.h"

#include "app/CommandDefiner.h"
#include "app/CommandPrinting.h"
#include "app/Version.h"

namespace dorvane {
namespace {

void defineInventory(CLI::App& app, Definer& define) {
    const auto list = makeValues();
    define.call(app, "list", "List all machines", list, [](CommandValues& v) {
        v.call.method = "list";
        v.call.print = printMachineTable;
    });
    const auto status = makeValues();
    define
        .call(app, "status", "Show one machine, or the service itself", status,
              [](CommandValues& v) {
                  v.call.method = v.vm.empty() ? "service.status" : "status";
                  if (!v.vm.empty()) v.call.params["vm"] = v.vm;
                  v.call.print = printFields;
              })
        ->add_option("vm", status->vm, "Name or UUID of the machine");
}

void defineCreate(CLI::App& app, Definer& define) {
    const auto values = makeValues();
    auto* create = define.call(app, "create", "Create a machine", values, [](CommandValues& v) {
        v.call.method = "create";
        v.call.params = {{"name", v.name}, {"os", v.os}};
        if (v.cpus != 0) v.call.params["cpuCount"] = v.cpus;
        if (v.memory != 0) v.call.params["memoryMB"] = v.memory;
        if (v.disk != 0) v.call.params["diskSizeGB"] = v.disk;
        if (!v.image.empty()) v.call.params["installerImage"] = std::filesystem::absolute(v.image).string();
        v.call.print = printSentence("Created %@.");
    });
    create->add_option("name", values->name, "Name of the new machine")->required();
    create->add_option("--os", values->os, "macos, linux or windows")->capture_default_str();
    create->add_option("--cpus", values->cpus, "Virtual processors (default 4)");
    create->add_option("--memory", values->memory, "Memory in MB (default 4096)");
    create->add_option("--disk", values->disk, "Disk size in GB (default 64)");
    create->add_option("--installer", values->image, "Installer image to boot from")
        ->check(CLI::ExistingFile);
}

void defineRunControl(CLI::App& app, Definer& define) {
    define.machineCall(app, "start", "Start a machine, or resume a suspended one", "Started %@.");
    const auto stop = makeValues();
    auto* stopCommand = define.call(app, "stop", "Ask the guest to shut down", stop, [](CommandValues& v) {
        v.call.method = "stop";
        v.call.params = {{"vm", v.vm}, {"force", v.flag}};
        v.call.print = printStopped;
    });
    addMachine(*stopCommand, stop);
    stopCommand->add_flag("--force", stop->flag, "Power the machine off without asking the guest");
    define.machineCall(app, "restart", "Shut the guest down and start it again", "Restarted %@.");
    define.machineCall(app, "pause", "Freeze a running machine", "Paused %@.");
    define.machineCall(app, "resume", "Let a paused machine go on", "Resumed %@.");
    define.machineCall(app, "suspend", "Save the machine's memory to disk and power it off", "Suspended %@.");

    const auto discard = makeValues();
    auto* discardCommand =
        define.call(app, "discard", "Give up a suspended machine's memory", discard, [](CommandValues& v) {
            v.call.method = "discard";
            v.call.params["vm"] = v.vm;
            v.call.print = printDiscarded;
            askFirst(v, "Give up what \"" + v.vm + "\" had in memory when it was suspended?",
                     {"discard", "--yes", v.vm});
        });
    addMachine(*discardCommand, discard);
    addYes(*discardCommand, discard);
}

void defineGuest(CLI::App& app, Definer& define) {
    const auto exec = makeValues();
    auto* execCommand =
        define.call(app, "exec", "Run a shell command inside a guest", exec, [](CommandValues& v) {
            std::string command;
            for (const auto& word : v.words) command += (command.empty() ? "" : " ") + word;
            v.call.method = "exec";
            v.call.params = {{"vm", v.vm}, {"command", command}, {"timeout", v.timeout}};
            if (!v.username.empty()) v.call.params["username"] = v.username;
            v.call.print = printCommandOutput;
            v.call.exitStatus = [](const JSON& result) { return result.value("exitCode", 1) & 0xFF; };
        });
    addMachine(*execCommand, exec);
    execCommand->add_option("command", exec->words, "The command and its words")->required();
    execCommand->add_option("--username", exec->username, "SSH user name");
    execCommand->add_option("--timeout", exec->timeout, "Seconds (1 to 600)")->capture_default_str();
    execCommand->positionals_at_end();

    const auto shot = makeValues();
    auto* shotCommand =
        define.call(app, "screenshot", "Save a picture of a guest's screen", shot, [](CommandValues& v) {
            v.call.method = "screenshot";
            v.call.params["vm"] = v.vm;
            v.call.print = saveScreenshot(v.output);
        });
    addMachine(*shotCommand, shot);
    shotCommand->add_option("-o,--output", shot->output, "PNG file to write; - for standard output")
        ->capture_default_str();
}

void defineSettings(CLI::App& app, Definer& define) {
    auto* group = app.add_subcommand("settings", "Read and change the settings");
    group->require_subcommand(1);
    const auto get = makeValues();
    define
        .call(*group, "get", "Print one setting", get,
              [](CommandValues& v) {
                  v.call.method = "settings.get";
                  v.call.params["key"] = v.key;
                  v.call.print = printSettingValue;
              })
        ->add_option("key", get->key, "The setting's key")
        ->required();
    const auto set = makeValues();
    auto* setCommand = define.call(*group, "set", "Change one setting", set, [](CommandValues& v) {
        v.call.method = "settings.set";
        v.call.params = {{"key", v.key}, {"value", v.value}};
        v.call.print = printSettingValue;
    });
    setCommand->add_option("key", set->key, "The setting's key")->required();
    setCommand->add_option("value", set->value, "The new value")->required();
    const auto list = makeValues();
    define.call(*group, "list", "Print all settings", list, [](CommandValues& v) {
        v.call.method = "settings.list";
        v.call.print = printFields;
    });
}

void defineMCP(CLI::App& app, Definer& define) {
    auto* group = app.add_subcommand("mcp", "The address for agents");
    group->require_subcommand(1);
    struct Verb {
        const char* name;
        const char* help;
    };
    for (const auto& verb : {Verb{"url", "Print the server's address, token included"},
                             Verb{"config", "Print the snippet for an MCP client"},
                             Verb{"probe", "Test the server the way a client would"}}) {
        const auto values = makeValues();
        define.call(*group, verb.name, verb.help, values, [name = std::string(verb.name)](CommandValues& v) {
            v.call.method = "mcp." + name;
            v.call.print = printText;
            v.call.exitStatus = [](const JSON& result) { return result.value("ok", true) ? 0 : 1; };
        });
    }
    const auto token = makeValues();
    define
        .call(*group, "token", "Print the access token", token,
              [](CommandValues& v) {
                  v.call.method = "mcp.token";
                  v.call.params["regenerate"] = v.flag;
                  v.call.print = printText;
              })
        ->add_flag("--regenerate", token->flag, "Make a new one; clients must be set up again");
}

void defineLogs(CLI::App& app, Definer& define) {
    const auto log = makeValues();
    auto* logCommand = define.call(app, "log", "Show what agents did", log, [](CommandValues& v) {
        v.call.method = "log";
        v.call.params["limit"] = v.lines;
        if (!v.vm.empty()) v.call.params["vm"] = v.vm;
        v.call.print = printActivity;
    });
    logCommand->add_option("vm", log->vm, "Only this machine");
    logCommand->add_option("-n,--lines", log->lines, "How many of the newest entries")->capture_default_str();

    const auto logs = makeValues();
    auto* logsCommand =
        define.call(app, "logs", "Show what the service logged about a machine, and its console", logs,
                    [](CommandValues& v) {
                        v.call.method = "logs";
                        v.call.params["vm"] = v.vm;
                        v.call.print = printMachineLog;
                    });
    addMachine(*logsCommand, logs);
}

void defineRest(CLI::App& app, Definer& define) {
    const auto open = makeValues();
    define
        .call(app, "open", "Carry out a dorvane: link", open,
              [](CommandValues& v) {
                  v.call.method = "open";
                  v.call.params["url"] = v.url;
                  v.call.print = printLink;
              })
        ->add_option("url", open->url, "dorvane://start?vm=NAME, with start, stop, show or snapshot")
        ->required();

    const auto demo = makeValues();
    auto* demoCommand = define.call(
        app, "demo", "Boot the demo guest and show how to connect an agent", demo, [](CommandValues& v) {
            v.call.method = "demo";
            v.call.params["screenshot"] = std::filesystem::absolute(v.output).string();
            if (!v.image.empty()) v.call.params["image"] = std::filesystem::absolute(v.image).string();
            v.call.print = printDemo;
        });
    demoCommand->add_option("--image", demo->image, "The demo guest's disk, made by scripts/demo-guest")
        ->check(CLI::ExistingFile);
    demoCommand->add_option("--screenshot", demo->output, "PNG file to write")->capture_default_str();
}

void defineLocal(CLI::App& app, CommandRequest& request) {
    const auto values = makeValues();
    auto* serve = app.add_subcommand("serve", "Run the service in the foreground");
    serve->add_option("--storage", values->storage, "Folder of the machines, for this run");
    serve->add_option("--port", values->port, "Port of the MCP server, for this run")
        ->check(CLI::Range(1024, 65535));
    serve->add_flag("-v,--verbose", values->flag, "Log more");
    serve->callback([&request, values] {
        ServeRequest made;
        if (!values->storage.empty()) made.storage = std::filesystem::absolute(values->storage);
        if (values->port != 0) made.port = values->port;
        made.verbose = values->flag;
        request = made;
    });
    auto* completion = app.add_subcommand("completion", "Print a completion script: bash, zsh or fish");
    completion->add_option("shell", values->shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    completion->callback([&request, values] { request = PrintRequest{*completionScript(values->shell)}; });
}

}  // namespace

void defineCommands(CLI::App& app, CommandRequest& request) {
    app.description("Dorvane runs virtual machines and lets agents drive them.");
    app.name("dorvane");
    app.set_version_flag("--version", std::string("dorvane ") + version);
    app.require_subcommand(1);
    Definer define(request);
    defineInventory(app, define);
    defineCreate(app, define);
    defineRunControl(app, define);
    defineCopies(app, define);
    defineSnapshots(app, define);
    defineBackups(app, define);
    defineGuest(app, define);
    defineSettings(app, define);
    defineMCP(app, define);
    defineLogs(app, define);
    defineRest(app, define);
    defineLocal(app, request);
}

}  // namespace dorvane
