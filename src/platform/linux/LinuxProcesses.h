// SPDX-License-Identifier: Apache-2.0
// Other processes, as /proc shows them.
#pragma once

#include "platform/Processes.h"

namespace dorvane {

class LinuxProcesses : public Processes {
  public:
    std::optional<std::string> name(int pid) const override;
    std::optional<std::vector<int>> childPIDs(int pid) const override;
    /// Where the program stood when it was started, also when it has been replaced since.
    std::optional<Path> executablePath(int pid) const override;
    std::optional<int> peerPID(int socket) const override;
    std::string shortened(const std::string& program) const override;
};

}  // namespace dorvane
