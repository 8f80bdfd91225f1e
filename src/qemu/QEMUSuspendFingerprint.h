// SPDX-License-Identifier: Apache-2.0
// What a suspended machine's memory image depends on.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/Files.h"

namespace dorvane {

/// QEMU can load a memory image only into a machine with the same devices, and an image that one binary wrote
/// can't be trusted in another.
struct QEMUSuspendFingerprint {
    std::string devices;
    std::string engine;

    /// SHA-256 over the options that shape what the guest sees; "-incoming" must not have been appended yet.
    static std::string deviceDigest(const std::vector<std::string>& arguments);
    static constexpr auto unreadableEngine = "unreadable";
    /// SHA-256 of the file, or `unreadableEngine`. Reads it all: blocking, for background work.
    static std::string engineDigest(const Path& executable);

    /// The text of the file beside the state.
    std::string serialized() const;
    static std::optional<QEMUSuspendFingerprint> parse(std::string_view serialized);

    bool operator==(const QEMUSuspendFingerprint&) const = default;
};

}  // namespace dorvane
