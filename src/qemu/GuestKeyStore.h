// SPDX-License-Identifier: Apache-2.0
// One SSH key pair for each VM, with which Dorvane logs in to its guest.
#pragma once

#include "base/UUID.h"
#include "runtime/ChildProcess.h"
#include "runtime/Logger.h"

namespace dorvane {

struct GuestKeyPair {
    Path privateKey;
    std::string publicKey;  // one line, no line feed
};

/// Main thread. The keys live in "GuestKeys/<id>" below the base folder; they are the user's to
/// remove: nothing here does, not even when the VM is deleted.
class GuestKeyStore {
  public:
    static constexpr auto systemKeygen = "/usr/bin/ssh-keygen";

    GuestKeyStore(const Runtime& runtime, Path baseFolder, Path keygen = systemKeygen)
        : runtime_(runtime), base_(std::move(baseFolder)), keygen_(std::move(keygen)) {}

    Path directory(const UUID& id) const { return base_ / "GuestKeys" / id.text(); }
    /// The VM's pair, made when there is none or when half of it is lost. Throws vmStartupFailed with the
    /// tool's words, FileError or std::filesystem::filesystem_error.
    Task<GuestKeyPair> keyPair(UUID id) const;

  private:
    Task<void> generate(UUID id, Path privateKey) const;

    const Runtime& runtime_;
    Path base_;
    Path keygen_;
    Logger logger_{"GuestKeyStore"};
};

}  // namespace dorvane
