// SPDX-License-Identifier: Apache-2.0
// The commands that make copies of machines, keep earlier states of them, and remove either.
#include "app/CommandDefiner.h"
#include "app/CommandPrinting.h"
#include "app/DurationText.h"
#include "automation/EphemeralSandboxServicing.h"
#include "base/Localized.h"

namespace dorvane {
namespace {

void requireRegularClone(const CommandValues& v) {
    if (v.minutes != 0 || v.isolated) {
        std::vector<std::string> words{"clone", "--sandbox"};
        if (v.minutes != 0) words.insert(words.end(), {"--ttl", std::to_string(v.minutes)});
        if (v.isolated) words.emplace_back("--isolated");
        words.push_back(v.vm);
        throw CLI::ValidationError("Only a sandbox has an end of life and a network of its own: " +
                                   commandText(words));
    }
    if (v.name.empty())
        throw CLI::ValidationError("The copy needs a name: " + commandText({"clone", v.vm}) + " NAME");
}

void buildClone(CommandValues& v) {
    v.call.params["vm"] = v.vm;
    if (!v.sandbox) {
        requireRegularClone(v);
        v.call.method = "clone";
        v.call.params["name"] = v.name;
        v.call.print = printSentence("Cloned to %@.");
        return;
    }
    if (!v.name.empty())
        throw CLI::ValidationError("A sandbox is given its name: " +
                                   commandText({"clone", "--sandbox", v.vm}));
    v.call.method = "sandbox.create";
    v.call.params["isolated"] = v.isolated;
    if (v.minutes != 0) v.call.params["ttlMinutes"] = v.minutes;
    v.call.print = printSandbox("Created the sandbox %@.");
}

void buildDelete(CommandValues& v) {
    v.call.method = "delete";
    v.call.params = {{"vm", v.vm}, {"permanently", v.flag}};
    v.call.print = printSentence(v.flag ? "Erased %@." : "Moved %@ to the Trash.");
    std::vector<std::string> words{"delete", "--yes"};
    if (v.flag) words.emplace_back("--permanently");
    words.push_back(v.vm);
    askFirst(v,
             v.flag ? "Erase \"" + v.vm + "\" and its disk for good?" : "Move \"" + v.vm + "\" to the Trash?",
             words);
}

void defineSandboxes(CLI::App& app, Definer& define) {
    const auto keep = makeValues();
    addMachine(*define.call(app, "keep", "Make a sandbox a regular machine", keep,
                            [](CommandValues& v) {
                                v.call.method = "keep";
                                v.call.params["vm"] = v.vm;
                                v.call.print = printSentence("%@ is a regular machine now.");
                            }),
               keep);
    const auto extend = makeValues();
    auto* extendCommand =
        define.call(app, "extend", "Move the end of a sandbox's life", extend, [](CommandValues& v) {
            const auto seconds = parseDurationText(v.duration);
            if (!seconds)
                throw CLI::ValidationError("\"" + v.duration +
                                           "\" is no span of time. Write it like 90m, 12h or "
                                           "1d12h: " +
                                           commandText({"extend", v.vm, "12h"}));
            v.call.method = "extend";
            v.call.params = {{"vm", v.vm}, {"seconds", *seconds}};
            v.call.print = printSandbox("%@ has a new end of life.");
        });
    addMachine(*extendCommand, extend);
    extendCommand->add_option("duration", extend->duration, "By how long: 90m, 12h, 1d12h; -1h shortens it")
        ->required();
}

/// Restoring or deleting one snapshot.
void defineSnapshotChange(CLI::App& group, Definer& define, const std::string& verb, const std::string& help,
                          const std::string& done, const std::string& question) {
    const auto values = makeValues();
    auto* command = define.call(group, verb, help, values, [verb, done, question](CommandValues& v) {
        v.call.method = "snapshot." + verb;
        v.call.params = {{"vm", v.vm}, {"snapshot", v.snapshot}};
        v.call.print = printSentence(done);
        askFirst(v, localized(question, v.snapshot, v.vm), {"snapshot", verb, "--yes", v.vm, v.snapshot});
    });
    addMachine(*command, values);
    command->add_option("snapshot", values->snapshot, "Name or UUID of the snapshot")->required();
    addYes(*command, values);
}

}  // namespace

void defineCopies(CLI::App& app, Definer& define) {
    const auto clone = makeValues();
    auto* cloneCommand =
        define.call(app, "clone", "Copy a stopped machine under a new identity", clone, buildClone);
    addMachine(*cloneCommand, clone);
    cloneCommand->add_option("name", clone->name, "Name of the copy; a sandbox is given its own");
    cloneCommand->add_flag("--sandbox", clone->sandbox, "Make a copy that is removed by itself");
    cloneCommand->add_option("--ttl", clone->minutes, "Minutes after which a sandbox may go (default 1440)")
        ->check(CLI::Range(std::int64_t{1}, maximumSandboxMinutes));
    cloneCommand->add_flag("--isolated", clone->isolated, "Cut a sandbox off from every network");
    defineSandboxes(app, define);

    const auto remove = makeValues();
    auto* deleteCommand = define.call(app, "delete", "Move a machine to the Trash", remove, buildDelete);
    addMachine(*deleteCommand, remove);
    deleteCommand->add_flag("--permanently", remove->flag, "Erase it instead");
    addYes(*deleteCommand, remove);
}

void defineSnapshots(CLI::App& app, Definer& define) {
    auto* group = app.add_subcommand("snapshot", "Take, list, restore, delete and prune snapshots");
    group->require_subcommand(1);
    const auto list = makeValues();
    addMachine(*define.call(*group, "list", "List a machine's snapshots, newest first", list,
                            [](CommandValues& v) {
                                v.call.method = "snapshot.list";
                                v.call.params["vm"] = v.vm;
                                v.call.print = printSnapshotTable;
                            }),
               list);
    const auto take = makeValues();
    auto* takeCommand = define.call(*group, "take", "Take a snapshot", take, [](CommandValues& v) {
        v.call.method = "snapshot.take";
        v.call.params = {{"vm", v.vm}, {"name", v.name}, {"includeMemory", v.flag}};
        v.call.print = printSentence("Took snapshot %@.");
    });
    addMachine(*takeCommand, take);
    takeCommand->add_option("name", take->name, "Name of the snapshot")->required();
    takeCommand->add_flag("--memory", take->flag, "Save the running machine's memory too");
    defineSnapshotChange(*group, define, "restore", "Go back to a snapshot", "Restored %@.",
                         "Go back to the snapshot \"%@\" of \"%@\" and give up what its disk holds now?");
    defineSnapshotChange(*group, define, "delete", "Delete a snapshot", "Deleted snapshot %@.",
                         "Delete the snapshot \"%@\" of \"%@\"?");
    const auto prune = makeValues();
    auto* pruneCommand =
        define.call(*group, "prune", "Delete the oldest automatic snapshots", prune, [](CommandValues& v) {
            v.call.method = "snapshot.prune";
            v.call.params["vm"] = v.vm;
            if (v.keep >= 0) v.call.params["keep"] = v.keep;
            v.call.print = printPruned;
        });
    addMachine(*pruneCommand, prune);
    pruneCommand
        ->add_option("--keep", prune->keep, "How many of the newest stay (default: the setting's number)")
        ->check(CLI::Range(0, 1000));
}

void defineBackups(CLI::App& app, Definer& define) {
    const auto backup = makeValues();
    auto* backupCommand =
        define.call(app, "backup", "Pack a stopped machine into one file", backup, [](CommandValues& v) {
            const auto file = std::filesystem::absolute(v.file);
            std::error_code error;
            if (std::filesystem::is_directory(file, error))
                throw CLI::ValidationError(
                    v.file + " is a folder. Name the file: " +
                    commandText({"backup", v.vm, (Path(v.file) / "backup.zip").string()}));
            v.call.method = "backup";
            v.call.params = {{"vm", v.vm}, {"file", file.string()}};
            v.call.print = printBackup;
            if (std::filesystem::exists(file, error))
                askFirst(v, "Replace " + v.file + "?", {"backup", "--yes", v.vm, v.file});
        });
    addMachine(*backupCommand, backup);
    backupCommand->add_option("file", backup->file, "The ZIP archive to write")->required();
    backupCommand->add_flag("-y,--yes", backup->confirmed, "Replace an existing file without asking");

    const auto restore = makeValues();
    auto* restoreCommand =
        define.call(app, "restore", "Make a new machine from a backup", restore, [](CommandValues& v) {
            v.call.method = "restore";
            v.call.params["file"] = std::filesystem::absolute(v.file).string();
            if (!v.name.empty()) v.call.params["name"] = v.name;
            v.call.print = printSentence("Restored %@.");
        });
    restoreCommand->add_option("file", restore->file, "The archive")->required()->check(CLI::ExistingFile);
    restoreCommand->add_option("--name", restore->name, "Name of the machine (default: the archived one)");
}

}  // namespace dorvane
