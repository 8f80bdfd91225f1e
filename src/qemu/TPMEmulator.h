// SPDX-License-Identifier: Apache-2.0
// The software TPM of one VM: a swtpm child that QEMU reaches over a socket.
#pragma once

#include "platform/Processes.h"
#include "runtime/ChildProcess.h"
#include "runtime/Logger.h"

namespace dorvane {

/// Main thread. The emulator ends by itself when QEMU goes away.
class TPMEmulator {
  public:
    TPMEmulator(const Runtime& runtime, const Processes& processes)
        : runtime_(runtime), processes_(processes) {}
    ~TPMEmulator() { terminate(); }

    /// Clears what an earlier session left on the socket, starts the emulator with its state in
    /// `stateDirectory` and returns when the socket is there. Throws vmStartupFailed when it does not come up
    /// within 10 s or is terminated meanwhile, POSIXError when the program can't be started.
    Task<void> start(Path executable, Path stateDirectory, Path socket);
    /// Ends the emulator, hard after 5 s; twice does nothing.
    void terminate();

  private:
    Task<void> clearStale(Path socket);
    /// `name` leads to the directory too.
    Task<void> prepareState(Path executable, Path stateDirectory, Path name);

    const Runtime& runtime_;
    const Processes& processes_;
    std::shared_ptr<ChildProcess> process_;
    bool isTerminated_ = false;
    Logger logger_{"TPMEmulator"};
};

}  // namespace dorvane
