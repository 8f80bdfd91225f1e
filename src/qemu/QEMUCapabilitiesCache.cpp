// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUCapabilitiesCache.h"

#include "runtime/Logger.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

/// Each question takes some hundredths of a second; a program that takes longer is no QEMU.
constexpr auto questionTimeout = seconds(10);

struct Question {
    std::string QEMUHelpTexts::*text;
    std::vector<std::string> arguments;
};

const std::vector<Question>& questions() {
    static const std::vector<Question> all{
        {&QEMUHelpTexts::version, {"--version"}},
        {&QEMUHelpTexts::machines, {"-machine", "help"}},
        {&QEMUHelpTexts::machineProperties, {"-machine", "virt,help"}},
        {&QEMUHelpTexts::accelerators, {"-accel", "help"}},
        {&QEMUHelpTexts::displays, {"-display", "help"}},
        {&QEMUHelpTexts::audioDrivers, {"-audiodev", "help"}},
        {&QEMUHelpTexts::devices, {"-device", "help"}},
    };
    return all;
}

/// Empty when there is no answer in time.
Task<std::string> ask(const Runtime& runtime, ProcessCommand command) {
    const auto asked = command.executable.string() + " " + command.arguments.back();
    const auto output =
        co_await withTimeout(runtime.clock, questionTimeout, runProcess(runtime, std::move(command)));
    if (output) co_return std::string(asText(output->standardOutput));
    Logger("QEMUCapabilities").error("%{public}s gave no answer in time", asked);
    co_return std::string();
}

Task<QEMUHelpTexts> readHelp(const Runtime& runtime, Path executable, Environment additions) {
    auto environment = currentEnvironment();
    for (const auto& [name, value] : additions) environment[name] = value;
    ProcessCommand command{std::move(executable)};
    command.environment = std::move(environment);
    QEMUHelpTexts texts;
    for (const auto& question : questions()) {
        command.arguments = question.arguments;
        texts.*question.text = co_await ask(runtime, command);
        // What doesn't tell its version won't answer the other questions in time either.
        if (texts.version.empty()) co_return texts;
    }
    for (const auto& device : QEMUCapabilities::inspectedDevices()) {
        command.arguments.assign({"-machine", "virt", "-device", device + ",help"});
        texts.deviceProperties[device] = co_await ask(runtime, command);
    }
    co_return texts;
}

}  // namespace

QEMUCapabilitiesCache::QEMUCapabilitiesCache(const Runtime& runtime)
    : QEMUCapabilitiesCache([&runtime](Path executable, Environment additions) {
          return readHelp(runtime, std::move(executable), std::move(additions));
      }) {}

Task<QEMUCapabilities> QEMUCapabilitiesCache::capabilities(Path executable, Environment additions) {
    std::error_code failure;
    const auto size = std::filesystem::file_size(executable, failure);
    if (failure) throw FileError("read", executable, failure.value());
    const auto modified = std::filesystem::last_write_time(executable, failure);
    if (failure) throw FileError("read", executable, failure.value());
    const Key key{executable, size, modified};
    if (const auto found = known_.find(key); found != known_.end()) co_return found->second;
    const auto texts = co_await reader_(std::move(executable), std::move(additions));
    auto parsed = QEMUCapabilities::parse(texts);
    if (!parsed.version.empty()) known_[key] = parsed;
    co_return parsed;
}

}  // namespace dorvane
