// SPDX-License-Identifier: Apache-2.0
// A server's bytes after the handshake, kept for playing them again.
#pragma once

#include <filesystem>

#include "base/Bytes.h"

namespace dorvane::bench {

/// The stream begins with the answer to a full update request and ends with the end of an update. The file is
/// the text "DRFB", width and height as 32-bit numbers, and the stream.
struct Recording {
    int width = 0, height = 0;
    Bytes stream;

    /// Throws std::runtime_error for a file that isn't one.
    static Recording load(const std::filesystem::path& file);
    void save(const std::filesystem::path& file) const;
};

}  // namespace dorvane::bench
