// SPDX-License-Identifier: Apache-2.0
// Passwords in a file that only the user may read, for sessions without a secret service.
#pragma once

#include <mutex>

#include "base/JSON.h"
#include "platform/KeychainHelper.h"
#include "runtime/Files.h"
#include "runtime/Logger.h"

namespace dorvane {

/// One JSON object: service to account to base64. The file is read for each operation, so that programs
/// started side by side agree. A file that others may read is closed to them first; one that belongs to
/// somebody else is not trusted; one that can't be understood reads as empty and is set aside before a new
/// one is written.
class FileKeychain : public KeychainHelper {
  public:
    explicit FileKeychain(Path file) : file_(std::move(file)) {}

    std::optional<Bytes> read(const std::string& service, const std::string& account) override;
    bool save(const std::string& service, const std::string& account, ByteView secret) override;
    void remove(const std::string& service, const std::string& account) override;

    const Path& path() const { return file_; }

  private:
    JSON load() const;
    void store(const JSON& items) const;
    void makePrivate() const;

    Path file_;
    Logger logger_{"Keychain"};
    std::mutex mutex_;
};

}  // namespace dorvane
