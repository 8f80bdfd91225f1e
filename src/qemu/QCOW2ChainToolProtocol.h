// SPDX-License-Identifier: Apache-2.0
// Commands on chains of qcow2 layers that no running QEMU writes to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "runtime/Files.h"

namespace dorvane {

/// Blocking; for background work. All throw vmSnapshotFailed, or POSIXError when the tool can't be started.
class QCOW2ChainToolProtocol {
  public:
    virtual ~QCOW2ChainToolProtocol() = default;

    /// The backing file's name as the image's header has it; absent when there is none. Also works on an
    /// image that a running QEMU holds.
    virtual std::optional<std::string> backingPath(const Path& image) const = 0;
    virtual void createOverlay(const Path& overlay, const std::string& backingPath) const = 0;
    /// In bytes, as the guest sees it. Also works on an image that a running QEMU holds.
    virtual std::uint64_t virtualSize(const Path& image) const = 0;
    /// For a backing file that isn't reachable under that name yet, or is held open by a running QEMU.
    virtual void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backingPath,
                                                    std::uint64_t virtualSizeBytes) const = 0;
    /// Rewrites only the header; no backing path makes the image stand alone.
    virtual void retargetBackingUnsafe(const Path& image,
                                       const std::optional<std::string>& backingPath) const = 0;
    /// Copies data so that the image's content stays the same over its new backing file.
    virtual void rebase(const Path& image, const std::optional<std::string>& backingPath) const = 0;
    /// Writes the overlay's data into its backing file.
    virtual void commit(const Path& overlay) const = 0;
    virtual void resize(const Path& image, std::uint64_t sizeBytes) const = 0;
};

}  // namespace dorvane
