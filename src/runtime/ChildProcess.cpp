// SPDX-License-Identifier: Apache-2.0
#include "runtime/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <array>
#include <thread>

#include "runtime/Event.h"
#include "runtime/Sockets.h"
#include "runtime/Spawn.h"
#include "runtime/TaskHandle.h"

extern char** environ;

namespace dorvane {

struct ChildProcess::State {
    int pid = 0;
    mutable std::mutex mutex;
    std::optional<ExitStatus> status;
    Event ended;
    std::mutex telling;  // held while `ended` is being set
    FileDescriptor standardInput, standardOutput, standardError;
};

namespace {

/// A pipe or the null device for one stream: `child` goes to the child, `own` stays here.
struct StreamEnds {
    FileDescriptor child, own;
    int childNumber = -1;
};

StreamEnds openStream(StandardStream kind, int number) {
    StreamEnds ends;
    const bool isInput = number == STDIN_FILENO;
    if (kind == StandardStream::inherit) {
        ends.childNumber = number;
        return ends;
    }
    if (kind == StandardStream::null) {
        ends.child = FileDescriptor(::open("/dev/null", (isInput ? O_RDONLY : O_WRONLY) | O_CLOEXEC));
    } else {
        std::array<int, 2> fds{};
        if (::pipe2(fds.data(), O_CLOEXEC) != 0) throw POSIXError(errno);
        ends.child = FileDescriptor(isInput ? fds[0] : fds[1]);
        ends.own = FileDescriptor(isInput ? fds[1] : fds[0]);
    }
    if (!ends.child) throw POSIXError(errno);
    // A number below 3 would be overwritten while the streams are put in place.
    if (ends.child.get() < 3) ends.child = FileDescriptor(::fcntl(ends.child.get(), F_DUPFD_CLOEXEC, 3));
    ends.childNumber = ends.child.get();
    return ends;
}

ExitStatus exitStatusFrom(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) return {ExitStatus::Kind::signaled, WTERMSIG(waitStatus)};
    return {ExitStatus::Kind::exited, WEXITSTATUS(waitStatus)};
}

/// Writes `input` and reads both outputs at once, so that neither side can block the other.
class OutputPump {
  public:
    OutputPump(ChildProcess& child, ByteView input)
        : input_(child.takeStandardInput()),
          output_(child.takeStandardOutput()),
          error_(child.takeStandardError()),
          rest_(input) {
        if (input_) setNonBlocking(input_.get(), true);
        if (rest_.empty()) input_.reset();
    }

    void run(ProcessOutput& into) {
        while (output_ || error_) {
            std::array<pollfd, 3> fds{pollfd{output_.get(), POLLIN, 0}, pollfd{error_.get(), POLLIN, 0},
                                      pollfd{input_.get(), POLLOUT, 0}};
            if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return;
            if (fds[0].revents != 0) readInto(output_, into.standardOutput);
            if (fds[1].revents != 0) readInto(error_, into.standardError);
            if (fds[2].revents != 0) writeRest();
        }
    }

  private:
    static void readInto(FileDescriptor& fd, Bytes& into) {
        constexpr std::size_t chunk = 65536;
        const auto size = into.size();
        into.resize(size + chunk);
        const auto count = ::read(fd.get(), into.data() + size, chunk);
        into.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0 || (count < 0 && errno != EINTR)) fd.reset();
    }
    void writeRest() {
        const auto count = ::write(input_.get(), rest_.data(), rest_.size());
        if (count > 0) rest_ = rest_.subspan(static_cast<std::size_t>(count));
        if (rest_.empty() || (count < 0 && errno != EINTR && errno != EAGAIN)) input_.reset();
    }

    FileDescriptor input_, output_, error_;
    ByteView rest_;
};

ProcessOutput gather(ChildProcess& child, ByteView input) {
    ProcessOutput result;
    OutputPump(child, input).run(result);
    result.status = child.waitBlocking();
    return result;
}

}  // namespace

Environment currentEnvironment() {
    Environment result;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (const auto equals = text.find('='); equals != std::string_view::npos)
            result.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    return result;
}

std::shared_ptr<ChildProcess> ChildProcess::start(const ProcessCommand& command) {
    auto input = openStream(command.standardInput, STDIN_FILENO);
    auto output = openStream(command.standardOutput, STDOUT_FILENO);
    auto error = openStream(command.standardError, STDERR_FILENO);
    auto state = std::make_shared<State>();
    state->pid = spawnProgram(command, {input.childNumber, output.childNumber, error.childNumber});
    state->standardInput = std::move(input.own);
    state->standardOutput = std::move(output.own);
    state->standardError = std::move(error.own);
    std::thread([state] {
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(state->pid), &info, WEXITED | WNOWAIT) != 0 &&
               errno == EINTR) {
        }
        {
            // Reaped under the lock that `signal` takes: the number can't be reused in between.
            const std::lock_guard lock(state->mutex);
            int status = 0;
            while (::waitpid(state->pid, &status, 0) < 0 && errno == EINTR) {
            }
            state->status = exitStatusFrom(status);
        }
        const std::lock_guard telling(state->telling);
        state->ended.set();
    }).detach();
    auto child = std::make_shared<ChildProcess>();
    child->state_ = std::move(state);
    return child;
}

int ChildProcess::pid() const { return state_->pid; }

bool ChildProcess::isRunning() const { return !exitStatus(); }

bool ChildProcess::signal(int number) const {
    const std::lock_guard lock(state_->mutex);
    return !state_->status && ::kill(state_->pid, number) == 0;
}

bool ChildProcess::terminate() const { return signal(SIGTERM); }
bool ChildProcess::kill() const { return signal(SIGKILL); }

Task<ExitStatus> ChildProcess::wait() const {
    const auto state = state_;
    co_await state->ended.wait();
    // The reaping thread has let go of this thread's queue before anybody can take that down.
    const std::scoped_lock lock(state->telling, state->mutex);
    co_return *state->status;
}

std::optional<ExitStatus> ChildProcess::exitStatus() const {
    const std::lock_guard lock(state_->mutex);
    return state_->status;
}

ExitStatus ChildProcess::waitBlocking() const {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(state_->pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    // The reaping thread is about to record the status, or has done so.
    for (;;) {
        if (const auto status = exitStatus()) return *status;
        std::this_thread::yield();
    }
}

FileDescriptor ChildProcess::takeStandardInput() { return std::move(state_->standardInput); }
FileDescriptor ChildProcess::takeStandardOutput() { return std::move(state_->standardOutput); }
FileDescriptor ChildProcess::takeStandardError() { return std::move(state_->standardError); }

ProcessOutput runBlocking(ProcessCommand command, ByteView input) {
    command.standardInput = input.empty() ? StandardStream::null : StandardStream::pipe;
    command.standardOutput = command.standardError = StandardStream::pipe;
    const auto child = ChildProcess::start(command);
    return gather(*child, input);
}

Task<ProcessOutput> runProcess(const Runtime& runtime, ProcessCommand command) {
    constexpr auto killDelay = seconds(2);
    command.standardInput = StandardStream::null;
    command.standardOutput = command.standardError = StandardStream::pipe;
    auto child = ChildProcess::start(command);
    OneShot<ProcessOutput> output;
    asio::post(runtime.background.executor(), [child, output] { output.succeed(gather(*child, {})); });
    std::exception_ptr cancelled;
    try {
        co_return co_await output.wait();
    } catch (...) {
        cancelled = std::current_exception();
    }
    child->terminate();
    const auto deadline = runtime.clock.schedule(runtime.io, killDelay, [child] { child->kill(); });
    co_await ignoreCancellation();
    co_await child->wait();
    std::rethrow_exception(cancelled);
}

}  // namespace dorvane
