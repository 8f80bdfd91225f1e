// SPDX-License-Identifier: Apache-2.0
// What the control socket offers, as methods over the application's services.
#pragma once

#include "app/ControlServer.h"
#include "core/application/AppState.h"

namespace dorvane {

/// All methods, by name; they refer to `app` and `host`, which outlive the server.
ControlMethods makeServiceCommands(AppState& app, const HostServices& host);

// The groups that it is put together from.
void addMachineCommands(ControlMethods& methods, AppState& app);
void addToolCommands(ControlMethods& methods, AppState& app);
void addSnapshotCommands(ControlMethods& methods, AppState& app);
void addBackupCommands(ControlMethods& methods, AppState& app);
void addSandboxCommands(ControlMethods& methods, AppState& app);
void addLinkCommand(ControlMethods& methods, AppState& app);
void addSettingsCommands(ControlMethods& methods, AppState& app);
void addMCPCommands(ControlMethods& methods, AppState& app);
void addDemoCommand(ControlMethods& methods, AppState& app, const HostServices& host);

/// For ControlMethod::withdraw: a request that was begun is finished, whether or not its client still waits.
void runToTheEnd(const JSON& params);
/// The machine that `params.vm` names, after a refresh of the list. Throws ControlError with the known names.
Task<VMRecordPointer> resolveMachine(AppState& app, JSON params);
/// The parameter's text. Throws ControlError when it is missing or no text.
std::string requiredText(const JSON& params, const char* key);
/// A machine as `list` shows it.
JSON machineObject(const VMRecord& vm);

}  // namespace dorvane
