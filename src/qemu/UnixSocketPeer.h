// SPDX-License-Identifier: Apache-2.0
// Who listens on a Unix socket file, and how to stop a process carefully.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/Processes.h"
#include "runtime/Clock.h"

namespace dorvane {

/// For clearing the leftovers of an earlier session. Safe on any thread.
class UnixSocketPeer {
  public:
    /// `listening`: the process is known. `absent`: no socket file, or nobody listens on it. `unknown`: the
    /// question could not be answered.
    struct Probe {
        enum class Kind { listening, absent, unknown };
        Kind kind = Kind::unknown;
        int pid = 0;  // at least 1 when listening

        static Probe listening(int pid) { return {Kind::listening, pid}; }
        static Probe absent() { return {Kind::absent}; }
        static Probe unknown() { return {Kind::unknown}; }
        bool operator==(const Probe&) const = default;
    };
    /// Sends a signal (0 only asks) and says whether the process could be reached.
    using Signaller = std::function<bool(int pid, int signal)>;

    UnixSocketPeer(const Processes& processes, Clock& clock, Signaller signaller = systemSignaller());

    /// One connect that never waits; a socket file stays where it is.
    Probe probe(const std::string& path) const;
    std::optional<std::string> processName(int pid) const;
    /// SIGTERM, after `grace` SIGKILL, each only while the process's name still begins with the prefix: a
    /// process id may have been reused. Returns whether the process is known to be gone. A cancellation does
    /// not stop it.
    Task<bool> terminate(int pid, std::string expectingNamePrefix, Duration grace) const;

    static Signaller systemSignaller();

  private:
    bool isStill(int pid, const std::string& prefix) const;

    const Processes& processes_;
    Clock& clock_;
    Signaller signaller_;
};

}  // namespace dorvane
