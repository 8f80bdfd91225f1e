// SPDX-License-Identifier: Apache-2.0
// Backups: one machine, one archive. A client that goes away cancels its own.
#include "app/ServiceCommands.h"
#include "base/Localized.h"

namespace dorvane {
namespace {

std::string phaseText(VMBackupProgress::Phase phase) {
    using Phase = VMBackupProgress::Phase;
    switch (phase) {
        case Phase::preparing:
            return localized("Preparing");
        case Phase::compressing:
            return localized("Compressing");
        case Phase::extracting:
            return localized("Extracting");
        case Phase::installing:
            return localized("Installing");
    }
    return {};
}

VMBackupProgressHandler reporting(ProgressReporter report) {
    return [report = std::move(report)](const VMBackupProgress& progress) {
        report({phaseText(progress.phase), progress.fraction});
    };
}

Path absoluteFile(const JSON& params) {
    Path file = requiredText(params, "file");
    if (!file.is_absolute())
        throw ControlError(ControlErrorCode::invalidParams, localized("The file must be an absolute path."));
    return file;
}

Task<JSON> backup(AppState& app, JSON params, ProgressReporter report) {
    const auto file = absoluteFile(params);
    const auto vm = co_await resolveMachine(app, params);
    JSON shown{{"name", vm->name}, {"id", vm->id.text()}, {"file", file.string()}};
    const auto handler = reporting(std::move(report));
    co_await app.backupService().exportBackup(vm, file, handler);
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    if (!error) shown["bytes"] = size;
    co_return shown;
}

Task<JSON> restore(AppState& app, JSON params, ProgressReporter report) {
    const auto file = absoluteFile(params);
    const auto name = JSONReader(params).optional<std::string>("name");
    const auto handler = reporting(std::move(report));
    const auto vm = co_await app.backupService().restoreBackup(file, name, handler);
    co_return machineObject(*vm);
}

}  // namespace

void addBackupCommands(ControlMethods& methods, AppState& app) {
    methods["backup"].perform = [&app](JSON params, ProgressReporter report) {
        return backup(app, std::move(params), std::move(report));
    };
    methods["restore"].perform = [&app](JSON params, ProgressReporter report) {
        return restore(app, std::move(params), std::move(report));
    };
}

}  // namespace dorvane
