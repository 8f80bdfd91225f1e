// SPDX-License-Identifier: Apache-2.0
// A process table in memory.
#pragma once

#include <csignal>
#include <map>
#include <utility>

#include "platform/Processes.h"

namespace dorvane::test {

/// For code on one thread.
class FakeProcesses : public Processes {
  public:
    struct Entry {
        std::string name;
        /// Only SIGKILL ends it.
        bool ignoresSIGTERM = false;
        std::vector<int> children = {};
        Path path = {};
    };

    std::optional<std::string> name(int pid) const override { return fact(pid, &Entry::name); }
    std::optional<std::vector<int>> childPIDs(int pid) const override { return fact(pid, &Entry::children); }
    std::optional<Path> executablePath(int pid) const override { return fact(pid, &Entry::path); }
    std::optional<int> peerPID(int) const override { return peer; }
    std::string shortened(const std::string& program) const override { return program.substr(0, 15); }

    /// As the system's: 0 only asks. Returns whether the process was there.
    bool signal(int pid, int number) {
        if (!table.contains(pid)) return false;
        if (number != 0) signals.emplace_back(pid, number);
        if (number == SIGKILL || (number == SIGTERM && !table[pid].ignoresSIGTERM)) table.erase(pid);
        return true;
    }

    std::map<int, Entry> table;
    /// Who is at the other end of every socket; absent when the kernel doesn't tell.
    std::optional<int> peer;
    /// What was sent, in order.
    std::vector<std::pair<int, int>> signals;

  private:
    template <typename Fact>
    std::optional<Fact> fact(int pid, Fact Entry::*member) const {
        const auto found = table.find(pid);
        return found == table.end() ? std::nullopt : std::optional(found->second.*member);
    }
};

}  // namespace dorvane::test
