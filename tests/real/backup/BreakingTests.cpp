// SPDX-License-Identifier: Apache-2.0
// Backups and restores that end before their end: cancelled, killed, out of room, at every step.
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <future>
#include <thread>

#include "backup/RealBackup.h"
#include "base/RandomBytes.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;

enum class Operation { backup, restore };

struct Step {
    Operation operation;
    std::string name;
};

/// Never a runtime of its own while it forks: a child has one thread only.
class BackupBreaking : public testing::Test {
  protected:
    BackupBreaking() {
        RealBackupScene scene(root.path());
        scene.makeBundle("source");
        writeFileAtomically(scene.storage / "source" / "disk.img", randomBytes(6 << 20));
        const auto vm = scene.addVM("source");
        scene.run(scene.service.exportBackup(vm, scene.archive, {}));
        for (const auto& name : std::exchange(scene.steps, {})) steps.push_back({Operation::backup, name});
        scene.run(scene.service.restoreBackup(scene.archive, "copy", {}));
        for (const auto& name : scene.steps) steps.push_back({Operation::restore, name});
        fs::remove_all(scene.storage / "copy");
        before = everythingIn(root.path());
    }

    static Task<void> task(RealBackupScene& scene, VMRecordPointer vm, Operation operation) {
        const VMBackupProgressHandler silent;
        const std::optional<std::string> copyName = "copy";
        if (operation == Operation::backup)
            co_await scene.service.exportBackup(vm, scene.archive, silent);
        else
            co_await scene.service.restoreBackup(scene.archive, copyName, silent);
    }
    static void perform(RealBackupScene& scene, const VMRecordPointer& vm, Operation operation) {
        scene.run(task(scene, vm, operation));
    }
    /// Runs in a child, which ends with its failures, and gives how it ended.
    static int inChild(const std::function<void()>& work) {
        std::fflush(nullptr);
        const auto child = ::fork();
        if (child == 0) {
            work();
            std::fflush(nullptr);
            ::_exit(testing::Test::HasFailure() ? 1 : 0);
        }
        return child;
    }
    static int ended(int child) {
        int status = 0;
        ::waitpid(child, &status, 0);
        return status;
    }
    /// What a start of the program does to the storage folder; then everything has to be as before, or the
    /// operation's whole result to be there.
    void expectNothingHalf(const std::string& when, bool mayBeDone = false) {
        VMBundle::sweepInterruptedWork(root / "VMs");
        auto now = everythingIn(root.path());
        if (mayBeDone && fs::exists(root / "VMs" / "copy")) {
            EXPECT_EQ(readFile(root / "VMs" / "copy" / "disk.img"),
                      readFile(root / "VMs" / "source" / "disk.img"));
            EXPECT_TRUE(VMBundle(root / "VMs" / "copy").isValid()) << when;
            fs::remove_all(root / "VMs" / "copy");
            now = everythingIn(root.path());
        }
        if (mayBeDone && now["backups/backup.zip"] != before["backups/backup.zip"]) {
            EXPECT_TRUE(shell("unzip -tqq '" + (root / "backups" / "backup.zip").string() + "'")) << when;
            before["backups/backup.zip"] = now["backups/backup.zip"];
        }
        EXPECT_TRUE(now == before) << when << ": " << now.size() << " instead of " << before.size();
    }

    TemporaryDirectory root;
    std::vector<Step> steps;
    std::map<std::string, std::string> before;
};

TEST_F(BackupBreaking, KilledBeforeEachStep) {
    for (const auto& step : steps) {
        const auto child = inChild([&] {
            RealBackupScene scene(root.path());
            const auto vm = scene.addVM("source");
            scene.onStep = [&](const std::string& name) {
                if (name == step.name) ::kill(::getpid(), SIGKILL);
            };
            perform(scene, vm, step.operation);
        });
        EXPECT_TRUE(WIFSIGNALED(ended(child))) << step.name;
        // What stands in its place before the record is saved is a whole machine, which the library finds.
        expectNothingHalf("killed before " + step.name, step.name == "save");
    }
}

TEST_F(BackupBreaking, KilledAtAnyTime) {
    using Clock = std::chrono::steady_clock;
    int killed = 0;
    constexpr int times = 12;
    for (const auto operation : {Operation::backup, Operation::restore}) {
        const auto start = [&] {
            return inChild([&] {
                RealBackupScene scene(root.path());
                perform(scene, scene.addVM("source"), operation);
            });
        };
        const auto begin = Clock::now();
        EXPECT_EQ(ended(start()), 0);
        const auto whole = Clock::now() - begin;
        expectNothingHalf("after its end", true);
        for (int i = 0; i < times; ++i) {
            const auto child = start();
            std::this_thread::sleep_for(whole * i / times);
            ::kill(child, SIGKILL);
            killed += WIFSIGNALED(ended(child)) ? 1 : 0;
            expectNothingHalf(fmt::format("killed after {} of {} parts", i, times), true);
        }
    }
    EXPECT_GT(killed, times / 2);
}

TEST_F(BackupBreaking, CancelledAtEachStep) {
    for (const auto& step : steps) {
        const bool isTooLate = step.name == "save";
        {
            RealBackupScene scene(root.path());
            const auto vm = scene.addVM("source");
            const auto& main = scene.host.runtime().main;
            TaskHandle handle;
            scene.onStep = [&](const std::string& name) {
                if (name != step.name) return;
                if (main.isCurrent()) return handle.cancel();
                std::promise<void> done;
                // The cancellation is under way in the main thread when this goes on.
                main.async([&] {
                    handle.cancel();
                    main.async([&] { main.async([&] { done.set_value(); }); });
                });
                done.get_future().wait();
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            };
            OneShot<void> ending;
            const auto start = [](TaskHandle& started, const MainActor& on, Task<void> work) -> Task<void> {
                started = spawn(on.executor(), std::move(work), "cancelled");
                co_await started.finished();
            };
            scene.run(start(handle, main, deliver(task(scene, vm, step.operation), ending)));
            std::exception_ptr outcome;
            try {
                ending.take();
            } catch (...) {
                outcome = std::current_exception();
            }
            // Before the record is saved there is nothing left to wait for, and so to cancel.
            EXPECT_EQ(isCancellation(outcome), !isTooLate) << step.name << ": " << errorText(outcome);
            EXPECT_TRUE(scene.isIdle()) << step.name;
            EXPECT_EQ(scene.context.fetchRecords().size(), isTooLate ? 2u : 1u) << step.name;
            if (isTooLate) fs::remove_all(scene.storage / "copy");
        }
        const auto now = everythingIn(root.path());
        EXPECT_TRUE(now == before) << "cancelled at " << step.name << ": " << now.size() << " instead of "
                                   << before.size();
    }
}

TEST_F(BackupBreaking, OnADiskThatFillsUp) {
    constexpr int fitted = 3;
    const auto tryWith = [&](Operation operation, std::uint64_t kilobytes) {
        return ended(inChild([&] {
            const bool isBackup = operation == Operation::backup;
            const auto where = isBackup ? root / "backups" : root / "VMs";
            const auto room = "size=" + std::to_string(kilobytes) + "k";
            // A disk of this child's own, which nobody else sees.
            ASSERT_EQ(::unshare(CLONE_NEWNS | (::geteuid() == 0 ? 0 : CLONE_NEWUSER)), 0) << errnoText(errno);
            ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << errnoText(errno);
            ASSERT_EQ(::mount("none", where.c_str(), "tmpfs", 0, room.c_str()), 0) << errnoText(errno);
            RealBackupScene scene(root.path());
            VMRecordPointer vm;
            if (isBackup) {
                vm = scene.addVM("source");
                writeFileAtomically(scene.archive, "old");
            }
            const auto old = everythingIn(where);
            try {
                perform(scene, vm, operation);
                std::fflush(nullptr);
                ::_exit(fitted);
            } catch (const DorvaneError& error) {
                EXPECT_THAT(error.text(), testing::HasSubstr("No space left on device"));
            }
            EXPECT_EQ(everythingIn(where), old) << kilobytes;
            EXPECT_TRUE(scene.isIdle());
        }));
    };
    const auto needed = fs::file_size(root / "backups" / "backup.zip") >> 10;
    for (const auto operation : {Operation::backup, Operation::restore}) {
        for (const auto kilobytes :
             {std::uint64_t{16}, std::uint64_t{64}, needed / 4, needed / 2, needed - 100, needed + 500}) {
            const auto status = tryWith(operation, kilobytes);
            ASSERT_TRUE(WIFEXITED(status));
            EXPECT_EQ(WEXITSTATUS(status), kilobytes > needed ? fitted : 0) << kilobytes;
        }
    }
    expectNothingHalf("a full disk");
}

}  // namespace
}  // namespace dorvane::test
