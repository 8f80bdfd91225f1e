// SPDX-License-Identifier: Apache-2.0
// Generic passwords in the user's secret store.
#pragma once

#include <optional>
#include <string>

#include "base/Bytes.h"

namespace dorvane {

/// Safe on any thread; may block for a moment.
class KeychainHelper {
  public:
    virtual ~KeychainHelper() = default;

    /// Absent when there is no such item or it can't be read (which is logged).
    virtual std::optional<Bytes> read(const std::string& service, const std::string& account) = 0;
    /// Replaces what stood there. Says whether it was kept; a failure is logged.
    virtual bool save(const std::string& service, const std::string& account, ByteView secret) = 0;
    virtual void remove(const std::string& service, const std::string& account) = 0;
};

}  // namespace dorvane
