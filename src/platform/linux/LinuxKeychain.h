// SPDX-License-Identifier: Apache-2.0
// The user's secret store: the desktop's where there is one, else a file.
#pragma once

#include "platform/linux/FileKeychain.h"

namespace dorvane {

class SecretService;

/// Which store it is, is found out at the first use and holds for the life of the process. A password that
/// the desktop's store doesn't take goes to the file, and one in the file is always the newer: saving to the
/// desktop's store takes it out of the file.
class LinuxKeychain : public KeychainHelper {
  public:
    /// `hasSessionBus`: whether the environment names one (DBUS_SESSION_BUS_ADDRESS). Nothing is opened yet.
    LinuxKeychain(bool hasSessionBus, Path secretsFile);
    ~LinuxKeychain() override;

    std::optional<Bytes> read(const std::string& service, const std::string& account) override;
    bool save(const std::string& service, const std::string& account, ByteView secret) override;
    void remove(const std::string& service, const std::string& account) override;

  private:
    SecretService* desktopStore();
    void open();

    bool hasSessionBus_;
    FileKeychain file_;
    Logger logger_{"Keychain"};
    std::once_flag opened_;
    std::unique_ptr<SecretService> desktopStore_;
};

}  // namespace dorvane
