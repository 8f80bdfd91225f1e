// SPDX-License-Identifier: Apache-2.0
#include "app/CommandPrinting.h"

#include <iostream>
#include <vector>

#include "base/Hex.h"
#include "base/Localized.h"
#include "base/Text.h"
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

/// A file name as a shell would take it, for nothing that a terminal would act on.
std::string printable(std::string text) {
    for (auto& c : text)
        if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') c = '?';
    return text;
}

}  // namespace

void printMachineTable(const JSON& machines) {
    if (machines.empty()) {
        std::cout << "There are no machines yet. Create one with: dorvane create NAME\n";
        return;
    }
    std::vector<Row> rows{{"NAME", "OS", "STATUS", "CPUS", "MEMORY", "ID"}};
    for (const auto& machine : machines) {
        const bool suspended = machine.value("suspended", false);
        rows.push_back({printable(cell(machine, "name")), cell(machine, "os"),
                        cell(machine, "status") + (suspended ? " (suspended)" : ""),
                        cell(machine, "cpuCount"), cell(machine, "memoryMB") + " MB", cell(machine, "id")});
    }
    printTable(rows);
}

void printSnapshotTable(const JSON& snapshots) {
    std::vector<Row> rows{{"NAME", "TAKEN", "MEMORY", "RUNNING", "ID"}};
    for (const auto& snapshot : snapshots)
        rows.push_back({printable(cell(snapshot, "name")), cell(snapshot, "createdAt"),
                        snapshot.value("includesRAMState", false) ? "yes" : "no",
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
