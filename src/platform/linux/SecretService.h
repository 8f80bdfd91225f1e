// SPDX-License-Identifier: Apache-2.0
// Passwords in the desktop's secret store (the Secret Service of freedesktop.org, version 0.2), over the
// session bus.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Bytes.h"
#include "runtime/Clock.h"

namespace dorvane {

class SecretServiceError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Never asks the user anything: a store that is locked counts as absent. Every operation ends within the
/// time limit. Safe on any thread; all throw SecretServiceError.
class SecretService {
  public:
    /// Throws when no bus answers, no service stands behind it, or its default collection is absent or
    /// locked.
    explicit SecretService(Duration timeLimit);
    ~SecretService();
    SecretService(const SecretService&) = delete;
    SecretService& operator=(const SecretService&) = delete;

    std::optional<Bytes> read(const std::string& service, const std::string& account) const;
    void save(const std::string& service, const std::string& account, ByteView secret) const;
    void remove(const std::string& service, const std::string& account) const;

  private:
    struct Connection;
    Duration timeLimit_;
    std::shared_ptr<Connection> connection_;
};

}  // namespace dorvane
