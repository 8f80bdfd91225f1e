// SPDX-License-Identifier: Apache-2.0
// Results for people: tables and sentences on standard output.
#pragma once

#include <functional>
#include <string>

#include "base/JSON.h"

namespace dorvane {

using ResultPrinter = std::function<void(const JSON&)>;

void printMachineTable(const JSON& machines);
void printSnapshotTable(const JSON& snapshots);
/// "key: value" lines, aligned.
void printFields(const JSON& object);
void printActivity(const JSON& entries);
void printCommandOutput(const JSON& result);
void printSettingValue(const JSON& result);
/// The result's "text", as it stands.
void printText(const JSON& result);
void printStopped(const JSON& result);
void printDemo(const JSON& result);
void printDiscarded(const JSON& result);
void printPruned(const JSON& result);
void printBackup(const JSON& result);
void printLink(const JSON& result);
/// The result's "text", without anything that a terminal would act on.
void printMachineLog(const JSON& result);
/// A sentence with the sandbox's name, and when it expires.
ResultPrinter printSandbox(std::string text);
/// A sentence whose placeholder gets the result's "name".
ResultPrinter printSentence(std::string text);
/// Writes the result's "png" to the file, or to standard output for "-". Throws FileError.
ResultPrinter saveScreenshot(std::string file);

}  // namespace dorvane
