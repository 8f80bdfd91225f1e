// SPDX-License-Identifier: Apache-2.0
// Runs work in a child process and interrupts it at one of the calls that change files.
#pragma once

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <set>
#include <stdexcept>

#include "runtime/Logger.h"

namespace dorvane::test {

/// `kill` ends the process, with all of its tools, just before the call, as kill -9 does; `fail` makes the
/// call itself fail with EIO, in the process and not in its tools.
enum class Interruption { kill, fail };

struct TracedRun {
    /// How many calls were seen, the interrupted one included.
    int calls = 0;
    bool isInterrupted = false;
    /// The work went to its end and threw nothing.
    bool isSuccess = false;
};

class SyscallTracer {
  public:
    /// `at` counts from 1; 0 interrupts nothing.
    TracedRun run(const std::function<void()>& work, int at, Interruption how) {
        at_ = at;
        how_ = how;
        main_ = start(work);
        tracees_ = {main_};
        int status = 0;
        wait(main_, status);
        long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
        if (how == Interruption::kill) options |= PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;
        ::ptrace(PTRACE_SETOPTIONS, main_, 0, options);
        ::ptrace(PTRACE_SYSCALL, main_, 0, 0);
        while (!tracees_.empty()) {
            const auto thread = wait(-1, status);
            if (WIFEXITED(status) || WIFSIGNALED(status)) {
                tracees_.erase(thread);
                if (thread == main_) result_.isSuccess = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            } else {
                tracees_.insert(thread);
                proceed(thread, status);
            }
        }
        return result_;
    }

#ifdef __x86_64__
    static constexpr bool canFail = true;
#else
    static constexpr bool canFail = false;
#endif
    static bool isPermitted() {
        try {
            return SyscallTracer().run([] { ::rmdir("/"); }, 0, Interruption::kill).calls == 1;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

  private:
    static pid_t start(const std::function<void()>& work) {
        const auto child = ::fork();
        if (child < 0) throw std::runtime_error("can't fork");
        if (child > 0) return child;
        int failed = 2;
        if (::ptrace(PTRACE_TRACEME, 0, 0, 0) == 0) {
            installLogSink([](const LogLine&) {});
            ::raise(SIGSTOP);
            try {
                work();
                failed = 0;
            } catch (...) {
                failed = 1;
            }
        }
        ::_exit(failed);
    }
    static pid_t wait(pid_t which, int& status) {
        pid_t found = 0;
        while ((found = ::waitpid(which, &status, __WALL)) < 0 && errno == EINTR) {
        }
        if (found < 0) throw std::runtime_error("lost a traced process");
        return found;
    }

    void proceed(pid_t thread, int status) {
        int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80)) {
            signal = 0;
            atCall(thread);
        } else if (signal == SIGTRAP || signal == SIGSTOP) {
            // An event of tracing itself, or a new thread's first stop.
            signal = 0;
        }
        ::ptrace(PTRACE_SYSCALL, thread, 0, signal);
    }
    void atCall(pid_t thread) {
        __ptrace_syscall_info info{};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) <= 0) return;
        if (info.op == PTRACE_SYSCALL_INFO_EXIT && failing_ == thread) {
            setRegister(thread, Register::result, -EIO);
            failing_ = 0;
        }
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY || !changesFiles(info)) return;
        if (result_.isInterrupted || ++result_.calls != at_) return;
        result_.isInterrupted = true;
        if (how_ == Interruption::kill) {
            for (const auto tracee : tracees_) ::kill(tracee, SIGKILL);
        } else {
            setRegister(thread, Register::call, -1);
            failing_ = thread;
        }
    }
    static bool changesFiles(const __ptrace_syscall_info& info) {
        static const std::set<std::uint64_t> changing{
#ifdef SYS_rename
            SYS_rename,   SYS_unlink,    SYS_mkdir,     SYS_rmdir,
#endif
            SYS_renameat, SYS_renameat2, SYS_unlinkat,  SYS_mkdirat,  SYS_pwrite64,
            SYS_pwritev,  SYS_pwritev2,  SYS_ftruncate, SYS_fallocate};
        const bool isOpening = info.entry.nr == SYS_openat && (info.entry.args[2] & (O_CREAT | O_TRUNC)) != 0;
        return isOpening || changing.contains(info.entry.nr);
    }

    enum class Register { call, result };
    static void setRegister([[maybe_unused]] pid_t thread, [[maybe_unused]] Register which,
                            [[maybe_unused]] long value) {
#ifdef __x86_64__
        ::ptrace(
            PTRACE_POKEUSER, thread,
            which == Register::call ? offsetof(user_regs_struct, orig_rax) : offsetof(user_regs_struct, rax),
            value);
#endif
    }

    int at_ = 0;
    Interruption how_ = Interruption::kill;
    pid_t main_ = 0, failing_ = 0;
    std::set<pid_t> tracees_;
    TracedRun result_;
};

}  // namespace dorvane::test
