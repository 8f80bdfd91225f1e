// SPDX-License-Identifier: Apache-2.0
// The directory of one launch: sockets, scripts and links, gone when the child is.
#pragma once

#include "base/UUID.h"
#include "core/VMBundle.h"

namespace dorvane {

/// A value that holds the location. All writing operations are small, blocking file-system work and throw
/// FileError or std::filesystem::filesystem_error. Names are short: every path must fit a Unix socket's
/// limit.
class QEMURuntimeDirectory {
  public:
    explicit QEMURuntimeDirectory(Path path) : path_(std::move(path)) {}

    /// Makes "dvn/<first 8 characters of the id>" below `base`, for this user's eyes only.
    static QEMURuntimeDirectory make(const UUID& id, const Path& base);

    const Path& path() const { return path_; }
    Path qmpSocket() const { return path_ / "q.sock"; }
    Path vncSocket() const { return path_ / "v.sock"; }
    Path agentSocket() const { return path_ / "a.sock"; }
    Path tpmSocket() const { return path_ / "t.sock"; }
    Path displaySocket() const { return path_ / "d.sock"; }
    Path traceLog() const { return path_ / "trace.log"; }
    Path sharesDisk() const { return path_ / "sh"; }
    Path systemDiskLink(int index) const { return path_ / ("sys-" + std::to_string(index) + ".qcow2"); }

    /// The firmware shell's script that starts a Windows installer; returns its directory.
    Path writeBootScript() const;
    /// Makes the links through which QEMU opens the system disk, so that its path has no comma, is short and
    /// can be swapped; returns the disk's link.
    Path linkSystemDisk(const VMBundle& bundle) const;
    /// Points an existing link elsewhere; the link exists at every moment.
    static void repointLink(const Path& link, const Path& target);

    /// Makes the directory of the small disc that the guest sees, with the display driver's marker.
    void writeGraphicsMarker(bool accelerated) const;
    void writeSSHDisk(const std::string& publicKey) const;
    void writeSharesDisk(int port, const std::string& token) const;

    /// What an earlier QEMU left; what isn't there is passed over.
    void removeLeftoverSockets() const;
    void remove() const;

    bool operator==(const QEMURuntimeDirectory&) const = default;

  private:
    Path path_;
};

}  // namespace dorvane
