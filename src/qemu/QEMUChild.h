// SPDX-License-Identifier: Apache-2.0
// A running QEMU and what it says on standard error.
#pragma once

#include "qemu/QEMUStderrTail.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

/// Main thread, except for the destructor and the plain questions, which are safe anywhere. Dropping it
/// leaves the child running.
class QEMUChild {
  public:
    struct End {
        ExitStatus status;
        std::string stderrText;
    };

    /// Standard output goes to the null device. Throws POSIXError when the program can't be started.
    static std::shared_ptr<QEMUChild> start(const Runtime& runtime, ProcessCommand command);
    ~QEMUChild();
    QEMUChild(const QEMUChild&) = delete;
    QEMUChild& operator=(const QEMUChild&) = delete;

    int pid() const { return process_->pid(); }
    bool isRunning() const { return process_->isRunning(); }
    const std::shared_ptr<ChildProcess>& process() const { return process_; }

    /// Returns when the child has ended and its last words are there, waiting for those at most a second
    /// longer: a process that it started may hold the pipe.
    Task<End> waitForEnd() const;

  private:
    class ErrorReader;
    QEMUChild(const Runtime& runtime, std::shared_ptr<ChildProcess> process);

    const Runtime& runtime_;
    std::shared_ptr<ChildProcess> process_;
    std::shared_ptr<ErrorReader> reader_;
};

}  // namespace dorvane
