// SPDX-License-Identifier: Apache-2.0
// Child programs: what to start, a running child, and how it ended.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "runtime/FileDescriptor.h"
#include "runtime/Files.h"
#include "runtime/Runtime.h"

namespace dorvane {

using Environment = std::map<std::string, std::string>;

/// This process's environment.
Environment currentEnvironment();

/// Where one of the child's standard streams goes.
enum class StandardStream { null, inherit, pipe };

/// A value: building a command starts nothing.
struct ProcessCommand {
    Path executable;
    std::vector<std::string> arguments = {};
    /// Absent: the child inherits this process's environment.
    std::optional<Environment> environment = {};
    StandardStream standardInput = StandardStream::null;
    StandardStream standardOutput = StandardStream::null;
    StandardStream standardError = StandardStream::null;
};

/// How a child ended. A child that never started has none: starting throws instead.
struct ExitStatus {
    enum class Kind { exited, signaled };
    Kind kind = Kind::exited;
    /// The exit code (0 to 255) or the signal's number.
    int code = 0;

    bool wasSignaled() const { return kind == Kind::signaled; }
    bool isSuccess() const { return kind == Kind::exited && code == 0; }
    bool operator==(const ExitStatus&) const = default;
};

/// One child. Nothing but its three standard streams reaches it; it is always waited for, so no zombie stays,
/// and its process id is never signalled after the child has been reaped. Dropping the object leaves the
/// child running. All operations may be called from any thread.
class ChildProcess {
  public:
    /// Throws POSIXError when the program can't be started.
    static std::shared_ptr<ChildProcess> start(const ProcessCommand& command);

    int pid() const;
    bool isRunning() const;
    /// Sends a signal unless the child has ended; says whether it was sent.
    bool signal(int number) const;
    bool terminate() const;
    bool kill() const;

    /// Returns when the child has ended and been reaped.
    Task<ExitStatus> wait() const;
    /// Present once the child has ended.
    std::optional<ExitStatus> exitStatus() const;
    /// Blocks the calling thread; for background work.
    ExitStatus waitBlocking() const;

    /// This side of the child's pipes, each handed out once; none for a stream that is no pipe.
    FileDescriptor takeStandardInput();
    FileDescriptor takeStandardOutput();
    FileDescriptor takeStandardError();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

struct ProcessOutput {
    ExitStatus status;
    Bytes standardOutput;
    Bytes standardError;
};

/// Runs a command to its end and gathers both outputs (a standard input pipe gets `input`). Blocks the
/// calling thread; for background work. Throws POSIXError when the program can't be started.
ProcessOutput runBlocking(ProcessCommand command, ByteView input = {});

/// The same from a coroutine. Cancelling it ends the child (SIGTERM, after 2 s SIGKILL) and throws a
/// cancellation error once the child has gone.
Task<ProcessOutput> runProcess(const Runtime& runtime, ProcessCommand command);

}  // namespace dorvane
