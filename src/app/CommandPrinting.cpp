// SPDX-License-Identifier: Apache-2.0
#include "app/CommandPrinting.h"

#include <algorithm>
#include <iostream>
#include <vector>

#include "base/Hex.h"
#include "base/Localized.h"
#include "base/Text.h"
#include "core/ByteCountText.h"
#include "runtime/Files.h"

namespace dorvane {
namespace {

using Row = std::vector<std::string>;

std::string cell(const JSON& object, const char* key) {
    const auto value = object.find(key);
    if (value == object.end() || value->is_null()) return "-";
    return value->is_string() ? value->get<std::string>() : value->dump();
}

void printTable(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], scalarCount(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - scalarCount(row[i]) + 2, ' ');
        }
        std::cout << line << '\n';
    }
}

/// Text from a user or a guest, without anything that a terminal would act on.
std::string printable(std::string text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool isControl = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F;
        // U+0080 to U+009F are controls of two bytes.
        const bool isSecondOfTwo = i > 0 && (byte & 0xE0U) == 0x80 && text[i - 1] == '\xC2';
        if (isControl || isSecondOfTwo) text[i] = '?';
        if (isSecondOfTwo) text[i - 1] = '?';
    }
    return text;
}

}  // namespace

void printMachineTable(const JSON& machines) {
    if (machines.empty()) {
        std::cout << "There are no machines yet. Create one with: dorvane create NAME\n";
        return;
    }
    std::vector<Row> rows{{"NAME", "OS", "STATUS", "CPUS", "MEMORY", "ID"}};
    const bool hasSandbox =
        std::ranges::any_of(machines, [](const JSON& machine) { return machine.contains("expiresAt"); });
    if (hasSandbox) rows.front().push_back("EXPIRES");
    for (const auto& machine : machines) {
        const bool suspended = machine.value("suspended", false);
        rows.push_back({printable(cell(machine, "name")), cell(machine, "os"),
                        cell(machine, "status") + (suspended ? " (suspended)" : ""),
                        cell(machine, "cpuCount"), cell(machine, "memoryMB") + " MB", cell(machine, "id")});
        if (hasSandbox) rows.back().push_back(cell(machine, "expiresAt"));
    }
    printTable(rows);
}

void printSnapshotTable(const JSON& snapshots) {
    if (snapshots.empty()) {
        std::cout << "There are no snapshots yet. Take one with: dorvane snapshot take VM NAME\n";
        return;
    }
    std::vector<Row> rows{{"NAME", "TAKEN", "KIND", "MEMORY", "RUNNING", "ID"}};
    for (const auto& snapshot : snapshots)
        rows.push_back({printable(cell(snapshot, "name")), cell(snapshot, "createdAt"),
                        cell(snapshot, "kind"), snapshot.value("includesRAMState", false) ? "yes" : "no",
                        snapshot.value("takenWhileRunning", false) ? "yes" : "no", cell(snapshot, "id")});
    printTable(rows);
}

void printFields(const JSON& object) {
    std::vector<Row> rows;
    for (const auto& [key, value] : object.items())
        rows.push_back({key + ":", printable(cell(object, key.c_str()))});
    printTable(rows);
}

void printActivity(const JSON& entries) {
    std::vector<Row> rows{{"WHEN", "TOOL", "MACHINE", "TOOK", "RESULT"}};
    for (const auto& entry : entries) {
        const auto outcome =
            entry.value("succeeded", false) ? cell(entry, "summary") : "failed: " + cell(entry, "error");
        rows.push_back({cell(entry, "date"), cell(entry, "tool"), printable(cell(entry, "vm")),
                        cell(entry, "durationMilliseconds") + " ms", printable(outcome)});
    }
    printTable(rows);
}

void printCommandOutput(const JSON& result) {
    std::cout << result.value("stdout", "") << std::flush;
    std::cerr << result.value("stderr", "") << std::flush;
    if (const auto hint = result.value("hint", ""); !hint.empty()) std::cerr << hint << '\n';
}

void printSettingValue(const JSON& result) {
    const auto value = cell(result, "value");
    std::cout << printable(value) << '\n';
}

void printText(const JSON& result) { std::cout << result.value("text", "") << '\n'; }

void printStopped(const JSON& result) {
    const auto* text = result.value("forced", false) ? "Powered off %@." : "Stopped %@.";
    std::cout << printable(localized(text, result.value("name", ""))) << '\n';
}

void printDiscarded(const JSON& result) {
    const auto* text = result.value("discarded", false) ? "Discarded what %@ had in memory."
                                                        : "%@ had no memory to discard.";
    printSentence(text)(result);
}

void printPruned(const JSON& result) {
    std::cout << printable(localized("Deleted %d automatic snapshot(s) of %@.", result.value("removed", 0),
                                     result.value("name", "")))
              << '\n';
}

void printBackup(const JSON& result) {
    std::cout << printable(localized("Backed up %@ to %@ (%@).", result.value("name", ""),
                                     result.value("file", ""), byteCountText(result.value("bytes", 0LL))))
              << '\n';
}

void printLink(const JSON& result) {
    const auto command = result.value("command", "");
    if (!result.value("acted", false))
        std::cout << printable(localized("Nothing to do: %@ is %@.", result.value("vm", ""),
                                         result.value("status", "")))
                  << '\n';
    else if (command == "stop")
        printStopped(result);
    else
        printSentence(command == "start"  ? "Started %@."
                      : command == "show" ? "Opened the display of %@."
                                          : "Took snapshot %@.")(result);
}

void printMachineLog(const JSON& result) {
    auto text = result.value("text", "");
    std::erase(text, '\r');
    if (!text.ends_with('\n')) text += '\n';
    std::cout << printable(std::move(text));
}

ResultPrinter printSandbox(std::string text) {
    return [text = std::move(text)](const JSON& result) {
        std::cout << printable(localized(text, result.value("name", ""))) << " "
                  << localized("It expires at %@.", result.value("expiresAt", "-")) << '\n';
    };
}

void printDemo(const JSON& result) {
    std::cout << "The demo guest \"" << result.value("name", "") << "\" is running.\n"
              << "Its screen:   " << result.value("screenshot", "") << "\n"
              << "MCP address:  " << result.value("url", "") << "\n\n"
              << "For your MCP client:\n"
              << result.value("config", "") << '\n';
}

ResultPrinter printSentence(std::string text) {
    return [text = std::move(text)](const JSON& result) {
        std::cout << printable(localized(text, result.value("name", ""))) << '\n';
    };
}

ResultPrinter saveScreenshot(std::string file) {
    return [file = std::move(file)](const JSON& result) {
        const auto png = parseBase64(result.value("png", "")).value_or(Bytes{});
        if (file == "-") {
            std::cout.write(asText(png).data(), static_cast<std::streamsize>(png.size()));
            return;
        }
        writeFileAtomically(file, png);
        std::cout << "Saved " << file << ".\n";
    };
}

}  // namespace dorvane
