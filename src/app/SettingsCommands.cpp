// SPDX-License-Identifier: Apache-2.0
// The settings by their keys.
#include <charconv>
#include <limits>
#include <utility>

#include "app/ServiceCommands.h"
#include "base/Localized.h"

namespace dorvane {
namespace {

enum class SettingType { boolean, integer, text };

/// The settings that a user may change and that something heeds, with the type each is stored in.
const std::map<std::string, SettingType>& editableSettings() {
    static const std::map<std::string, SettingType> settings{
        {defaultsKey::vmStoragePath, SettingType::text},
        {defaultsKey::hasCompletedOnboarding, SettingType::boolean},
        {defaultsKey::mcpServerEnabled, SettingType::boolean},
        {defaultsKey::mcpServerPort, SettingType::integer},
        {defaultsKey::mcpAutoSnapshotEnabled, SettingType::boolean},
        {defaultsKey::mcpAutoSnapshotKeepCount, SettingType::integer},
        {defaultsKey::mcpDestructiveToolsEnabled, SettingType::boolean},
        {defaultsKey::opensDisplayOnStart, SettingType::boolean},
        {defaultsKey::urlCommandsEnabled, SettingType::boolean},
        {defaultsKey::vncPreferTight, SettingType::boolean},
        {defaultsKey::qemuTrace, SettingType::text},
        {defaultsKey::qemuMonitorSocket, SettingType::text},
    };
    return settings;
}

SettingType typeOf(const std::string& key) {
    const auto found = editableSettings().find(key);
    if (found == editableSettings().end())
        throw ControlError(ControlErrorCode::invalidParams,
                           localized("There is no setting named “%@”.", key));
    return found->second;
}

/// A number too long for 64 bits becomes the outermost one: its setting's own range refuses that.
std::optional<std::int64_t> wholeNumber(const std::string& text) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t number = 0;
    const auto* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (rest != end || error == std::errc::invalid_argument) return std::nullopt;
    if (error == std::errc::result_out_of_range) return text.front() == '-' ? Limits::min() : Limits::max();
    return number;
}

JSON parseValue(SettingType type, const std::string& text) {
    if (type == SettingType::text) return text;
    const bool isInteger = type == SettingType::integer;
    if (!isInteger && (text == "true" || text == "false")) return text == "true";
    if (isInteger)
        if (const auto number = wholeNumber(text)) return *number;
    const auto* expected = isInteger ? "a whole number" : "true or false";
    throw ControlError(ControlErrorCode::invalidParams, localized("“%@” is not %@.", text, expected));
}

/// Settings with a service behind them go through that service, so that they take effect at once.
void apply(AppState& app, const std::string& key, const JSON& value) {
    if (key == defaultsKey::mcpServerEnabled) {
        app.mcpServerService().setEnabled(value.get<bool>());
    } else if (key == defaultsKey::mcpServerPort) {
        const auto port = value.get<std::int64_t>();
        if (!std::in_range<std::uint16_t>(port) || !app.mcpServerService().setPort(static_cast<int>(port)))
            throw ControlError(ControlErrorCode::invalidParams,
                               localized("The port must be between %d and %d.", 1024, 65535));
    } else if (key == defaultsKey::vmStoragePath) {
        if (!Path(value.get<std::string>()).is_absolute())
            throw ControlError(ControlErrorCode::invalidParams,
                               localized("The storage folder must be an absolute path."));
        app.settingsService().setStoragePath(value.get<std::string>());
    } else {
        app.settingsService().defaults().set(key, value);
    }
}

JSON settingObject(AppState& app, const std::string& key) {
    return {{"key", key}, {"value", app.settingsService().defaults().value(key)}};
}

}  // namespace

void addSettingsCommands(ControlMethods& methods, AppState& app) {
    methods["settings.get"].perform = [&app](JSON params, const ProgressReporter&) -> Task<JSON> {
        return [](AppState& state, JSON given) -> Task<JSON> {
            const auto key = requiredText(given, "key");
            typeOf(key);
            co_return settingObject(state, key);
        }(app, std::move(params));
    };
    methods["settings.set"].perform = [&app](JSON params, const ProgressReporter&) -> Task<JSON> {
        return [](AppState& state, JSON given) -> Task<JSON> {
            const auto key = requiredText(given, "key");
            apply(state, key, parseValue(typeOf(key), requiredText(given, "value")));
            co_return settingObject(state, key);
        }(app, std::move(params));
    };
    methods["settings.list"].perform = [&app](const JSON&, const ProgressReporter&) -> Task<JSON> {
        return [](AppState& state) -> Task<JSON> {
            auto values = JSON::object();
            for (const auto& [key, type] : editableSettings())
                values[key] = state.settingsService().defaults().value(key);
            co_return values;
        }(app);
    };
}

}  // namespace dorvane
