// SPDX-License-Identifier: Apache-2.0
// Long work on a background thread that a cancellation stops at once, with its progress told on the main
// thread.
#pragma once

#include "runtime/Logger.h"
#include "runtime/Runtime.h"
#include "runtime/TaskHandle.h"
#include "snapshots/ArchiveControl.h"
#include "snapshots/VMBackupProgress.h"

namespace dorvane {

/// Tells a fraction at regular times for as long as it lives. Main thread only.
class VMBackupSampler {
  public:
    VMBackupSampler(const Runtime& runtime, const ArchiveControl& control, VMBackupProgress::Phase phase,
                    const VMBackupProgressHandler& handler)
        : runtime_(runtime), control_(control), phase_(phase), handler_(handler) {
        if (handler_) schedule();
    }
    VMBackupSampler(const VMBackupSampler&) = delete;
    VMBackupSampler& operator=(const VMBackupSampler&) = delete;

  private:
    static constexpr auto interval = milliseconds(200);

    void schedule() {
        timer_ = runtime_.clock.schedule(runtime_.main.executor(), interval, [this] { tell(); });
    }
    void tell() {
        try {
            handler_({phase_, control_.fraction()});
        } catch (const std::exception& error) {
            Logger("VMBackupService").error("Could not tell a backup's progress: %{public}s", error.what());
        }
        schedule();
    }

    const Runtime& runtime_;
    const ArchiveControl& control_;
    VMBackupProgress::Phase phase_;
    const VMBackupProgressHandler& handler_;
    Timer timer_;
};

/// Runs `work` on the pool and comes back with its value or exception. A cancellation of the caller reaches
/// the work through `control`; it has ended when the cancellation error is thrown, so it may refer to the
/// caller's variables.
template <typename Work, typename Result = std::invoke_result_t<Work&>>
Task<Result> runCancellable(const Runtime& runtime, ArchiveControl& control, Work work) {
    return onExecutor(runtime.main.executor(), runtime.background.run(std::move(work)),
                      [&control](TaskHandle&) { control.cancel(); });
}

}  // namespace dorvane
