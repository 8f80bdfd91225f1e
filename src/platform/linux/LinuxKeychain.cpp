// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxKeychain.h"

#include "platform/linux/SecretService.h"

namespace dorvane {
namespace {

/// Dorvane's start waits for this, so a bus that doesn't answer must not hold it up.
constexpr auto secretServiceTimeLimit = seconds(2);

}  // namespace

LinuxKeychain::LinuxKeychain(bool hasSessionBus, Path secretsFile)
    : hasSessionBus_(hasSessionBus), file_(std::move(secretsFile)) {}
LinuxKeychain::~LinuxKeychain() = default;

SecretService* LinuxKeychain::desktopStore() {
    std::call_once(opened_, [this] { open(); });
    return desktopStore_.get();
}

void LinuxKeychain::open() {
    std::string reason = "the session has no message bus";
    if (hasSessionBus_) {
        try {
            desktopStore_ = std::make_unique<SecretService>(secretServiceTimeLimit);
            return;
        } catch (const std::exception& error) {
            reason = error.what();
        }
    }
    logger_.error(
        "No secret service is usable (%{public}s); passwords are kept in %{public}s, which only this user "
        "can read",
        reason, file_.path().string());
}

std::optional<Bytes> LinuxKeychain::read(const std::string& service, const std::string& account) {
    if (auto secret = file_.read(service, account)) return secret;
    auto* store = desktopStore();
    if (store == nullptr) return std::nullopt;
    try {
        return store->read(service, account);
    } catch (const std::exception& error) {
        logger_.error("Could not read a password from the secret service: %{public}s", error.what());
        return std::nullopt;
    }
}

bool LinuxKeychain::save(const std::string& service, const std::string& account, ByteView secret) {
    if (auto* store = desktopStore()) {
        try {
            store->save(service, account, secret);
            file_.remove(service, account);
            return true;
        } catch (const std::exception& error) {
            logger_.error(
                "Could not save a password in the secret service, so it goes to %{public}s: %{public}s",
                file_.path().string(), error.what());
        }
    }
    return file_.save(service, account, secret);
}

void LinuxKeychain::remove(const std::string& service, const std::string& account) {
    file_.remove(service, account);
    auto* store = desktopStore();
    if (store == nullptr) return;
    try {
        store->remove(service, account);
    } catch (const std::exception& error) {
        logger_.error("Could not remove a password from the secret service: %{public}s", error.what());
    }
}

}  // namespace dorvane
