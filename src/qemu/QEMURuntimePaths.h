// SPDX-License-Identifier: Apache-2.0
// The per-launch files, sockets and ports of one QEMU child.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "runtime/Files.h"

namespace dorvane {

/// A plain value made by the launch. Presence or absence of a field is the launch's decision; the command
/// line follows it. Socket names are one letter, so that each path fits the limit of a Unix socket.
struct QEMURuntimePaths {
    Path executable;    // started by the supervisor, not part of the command line
    Path firmwareCode;  // UEFI code image
    std::optional<Path> dataDirectory;
    Path qmpSocket;
    std::optional<Path> vncSocket;
    std::optional<Path> vdagentSocket;
    std::optional<Path> bootScriptDirectory;
    std::optional<Path> sharesDiskDirectory;
    std::optional<Path> swtpmSocket;
    std::optional<Path> swtpmExecutable;  // started by the supervisor
    std::optional<Path> serialLog;
    std::optional<Path> guestDriversImage;
    std::optional<int> sshHostPort;      // loopback port forwarded to guest port 22
    std::optional<int> rdpHostPort;      // loopback port forwarded to guest port 3389
    std::optional<Path> systemDiskPath;  // absent: "disk.qcow2" of the bundle
    std::vector<std::string> traceEvents;
    std::optional<Path> traceLog;
    std::optional<Path> diagnosticMonitorSocket;  // a second QMP socket, for a developer
    std::optional<Path> displayMonitorSocket;     // a third one; its presence means accelerated graphics
    std::optional<Path> renderServer;             // environment of the child only
    std::optional<std::string> sandboxGroupID;    // environment of the child only

    bool operator==(const QEMURuntimePaths&) const = default;
};

}  // namespace dorvane
