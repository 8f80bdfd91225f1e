// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUMigration.h"

#include "core/DorvaneError.h"

namespace dorvane::QEMUMigration {
namespace {

constexpr auto queryTimeout = seconds(30.0);
constexpr auto pollInterval = milliseconds(300);

DorvaneError failure(const std::string& reason) {
    return DorvaneError(DorvaneError::Case::vmSnapshotFailed, reason);
}

std::string textMember(const QMPObject& object, const std::string& key) {
    const auto* value = findMember(object, key);
    const auto* text = value == nullptr ? nullptr : value->string();
    return text == nullptr ? std::string() : *text;
}

/// QEMU 7.2 knows no channels, and up to 10.0 it can't save an NVMe controller.
std::string explained(const std::string& words) {
    const auto says = [&](const char* sign) { return words.find(sign) != std::string::npos; };
    if (!says("'uri' is missing") && !says("'channels'") && !says("non-migratable")) return words;
    return localized("The installed QEMU is too old to save a running machine (%@).", words);
}

}  // namespace

JSON channelArguments(const Path& file) {
    JSON address{{"transport", "file"}, {"filename", file.string()}, {"offset", 0}};
    JSON channel{{"channel-type", "main"}, {"addr", address}};
    return JSON{{"channels", JSON::array({channel})}};
}

Task<void> begin(std::shared_ptr<QMPConnection> connection, Path file, Duration timeout) {
    try {
        co_await connection->execute("migrate", channelArguments(file), timeout);
    } catch (const QMPConnection::ConnectionError&) {
        throw failure(explained(localizedDescription(std::current_exception())));
    }
}

Task<std::string> status(std::shared_ptr<QMPConnection> connection, Duration timeout) {
    const auto answer = co_await connection->execute("query-migrate", nullptr, timeout);
    co_return textMember(answer, "status");
}

bool isSettled(const std::string& status) {
    return status == "cancelled" || status == "failed" || status == "completed" || status == "none";
}

Task<void> waitUntilCompleted(std::shared_ptr<QMPConnection> connection, Clock& clock, Duration timeout,
                              std::function<bool()> isPeerGone) {
    const auto deadline = clock.now() + timeout;
    for (;;) {
        if (clock.now() > deadline) throw failure(localized("Saving the VM state timed out."));
        if (isPeerGone()) throw failure(localized("The VM process exited unexpectedly."));
        const auto answer = co_await connection->execute("query-migrate", nullptr, queryTimeout);
        const auto state = textMember(answer, "status");
        if (state == "completed") co_return;
        if (state == "failed" || state == "cancelled") {
            const auto words = textMember(answer, "error-desc");
            throw failure(words.empty() ? localized("Saving the VM state failed.") : explained(words));
        }
        co_await clock.sleep(pollInterval);
    }
}

}  // namespace dorvane::QEMUMigration
