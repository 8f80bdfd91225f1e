// SPDX-License-Identifier: Apache-2.0
// Every operation on the chain, broken wherever it can break: a tool that fails, a call of the file system
// that fails, a process that is killed, a disk that is full.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <set>

#include "core/DorvaneError.h"
#include "snapshots/ChainScene.h"
#include "snapshots/SyscallTracer.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using test::ChainDisks;
using test::Interruption;
using testing::IsEmpty;

constexpr char newSnapshot = '0';

struct ChainOperation {
    const char* name;
    std::function<void(const ChainDisks&)> run;
    /// The snapshot that comes or goes, or the one that is restored.
    char subject = newSnapshot;
    enum class Kind { capture, rollback, removal, restore, other } kind = Kind::removal;
    std::function<void(const ChainDisks&)> prepare = [](const ChainDisks&) {};
    bool hasBranches = false;
};

std::vector<ChainOperation> chainOperations() {
    using Kind = ChainOperation::Kind;
    using Disks = const ChainDisks&;
    const auto id = ChainDisks::id(newSnapshot);
    const auto parent = ChainDisks::id('C');
    const auto removal = [](char letter) {
        return [letter](Disks disks) { disks.store.deleteSnapshot(disks.bundle, ChainDisks::id(letter)); };
    };
    const auto capture = [=](Disks disks) { disks.store.capture(disks.bundle, id); };
    const auto captureRunning = [=](Disks disks) { disks.store.captureWhileRunning(disks.bundle, id); };
    const auto leaveRoot = [=](Disks disks) {
        for (const char letter : {'B', 'C'}) removal(letter)(disks);
    };
    const auto unprepared = [](Disks) {};
    return {
        {"capture", capture, newSnapshot, Kind::capture},
        {"capture while running", captureRunning, newSnapshot, Kind::capture},
        {"uncapture", [=](Disks disks) { disks.store.uncapture(disks.bundle, id, parent); }, newSnapshot,
         Kind::rollback, capture},
        {"uncapture while running",
         [=](Disks disks) { disks.store.uncaptureRunning(disks.bundle, id, parent); }, newSnapshot,
         Kind::rollback, captureRunning},
        {"restore", [](Disks disks) { disks.store.restore(disks.bundle, ChainDisks::id('A')); }, 'A',
         Kind::restore},
        {"delete a leaf", removal('E'), 'E', Kind::removal, unprepared, true},
        {"delete below the live disk", removal('C'), 'C'},
        {"delete with one child", removal('B'), 'B'},
        {"delete with two children", removal('D'), 'D', Kind::removal, unprepared, true},
        {"delete the root of two children", removal('A'), 'A', Kind::removal, unprepared, true},
        {"delete the root below the live disk", removal('A'), 'A', Kind::removal, leaveRoot},
        {"flatten", [](Disks disks) { disks.store.flattenLiveDisk(disks.bundle); }, newSnapshot, Kind::other},
    };
}

class ChainInterruption : public testing::Test {
  protected:
    using Kind = ChainOperation::Kind;

    /// The prepared folder of each operation, made once and copied for each case, and what it held before.
    static inline std::unique_ptr<test::TemporaryDirectory> trees;
    static inline std::map<std::string, ChainDisks::Contents> contentsBefore;
    static inline std::optional<std::string> usualFolder;

    static void SetUpTestSuite() {
        const test::LogCapture quiet;
        if (const auto* set = std::getenv("TMPDIR")) usualFolder = set;
        // Thousands of files are written through to the disk here; memory makes no difference to a killed
        // process.
        if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
        trees = std::make_unique<test::TemporaryDirectory>();
        const ChainDisks line(*trees / "line"), tree(*trees / "tree");
        line.buildLine();
        fs::copy(line.bundle.directoryURL, tree.bundle.directoryURL, fs::copy_options::recursive);
        tree.addBranches();
        for (const auto& operation : chainOperations()) {
            const auto& base = operation.hasBranches ? tree : line;
            const ChainDisks disks(*trees / operation.name);
            fs::copy(base.bundle.directoryURL, disks.bundle.directoryURL, fs::copy_options::recursive);
            operation.prepare(disks);
            // A running capture leaves a header to the emulator: until then the layer can't be read here.
            contentsBefore[operation.name] =
                operation.kind == Kind::rollback ? base.contents() : disks.contents();
        }
    }
    static void TearDownTestSuite() {
        trees.reset();
        ::unsetenv("TMPDIR");
        if (usualFolder) ::setenv("TMPDIR", usualFolder->c_str(), 1);
    }

    const test::TemporaryDirectory storage;
    const test::LogCapture log;
    const ChainDisks disks{storage / "Machine"};
    int cases = 0;
    /// What the interruptions left and what became of it, each looked at once.
    std::set<std::string> states, mended;

    bool isNewState(const ChainOperation& operation, const ChainDisks& where) {
        return states.insert(operation.name + where.filesDigest()).second;
    }
    static void setUp(const ChainOperation& operation, const ChainDisks& where) {
        fs::remove_all(where.bundle.directoryURL);
        fs::copy(*trees / operation.name, where.bundle.directoryURL, fs::copy_options::recursive);
    }
    /// Whatever the operation came to: nothing that it wasn't about has changed.
    static void expectNothingLost(const ChainOperation& operation, const ChainDisks& where) {
        auto expected = contentsBefore.at(operation.name);
        const auto after = where.contents();
        const auto subject = ChainDisks::id(operation.subject).text();
        if (operation.kind == Kind::capture || operation.kind == Kind::rollback) {
            if (after.contains(subject)) expected[subject] = expected["live"];
        } else if (operation.kind == Kind::removal) {
            if (!after.contains(subject)) expected.erase(subject);
        } else if (operation.kind == Kind::restore) {
            if (after.at("live") != expected["live"]) expected["live"] = expected[subject];
        }
        EXPECT_EQ(after, expected);
        where.expectSoundImages();
    }
    /// After what the next start does, everything is in order and the operation goes through.
    void expectMended(const ChainOperation& operation, const ChainDisks& where) {
        EXPECT_TRUE(SnapshotChainRepair(where.store).run(where.bundle));
        EXPECT_THAT(where.leftovers(), IsEmpty());
        expectNothingLost(operation, where);
        const auto subject = where.disk(ChainDisks::id(operation.subject));
        const bool isDone = operation.kind == Kind::capture && fs::exists(subject);
        if (isDone || !mended.insert(operation.name + where.filesDigest()).second) return;
        operation.run(where);
        EXPECT_TRUE(SnapshotChainRepair(where.store).run(where.bundle));
        expectNothingLost(operation, where);
        if (operation.kind == Kind::removal || operation.kind == Kind::rollback) {
            EXPECT_FALSE(fs::exists(subject.parent_path()));
        }
    }
    static bool attempt(const ChainOperation& operation, const ChainDisks& where) {
        try {
            operation.run(where);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
    /// The disk is back, byte for byte, and the snapshot's folder gone.
    void expectUndone(const ChainOperation& operation) const {
        EXPECT_EQ(readFile(disks.live()), readFile(*trees / operation.name / "disk.qcow2"));
        EXPECT_FALSE(fs::exists(disks.disk(ChainDisks::id(operation.subject)).parent_path()));
    }
    void interruptEverywhere(Interruption how);
};

/// Stands in the tool's place and lets one call fail: before it does anything, after it has done everything,
/// or by a signal.
class FailingTool {
  public:
    explicit FailingTool(const Path& folder) : script_(folder / "tool"), count_(folder / "count") {
        constexpr auto script = R"(#!/bin/sh
count='{}' plan='{}' tool='{}'
number=$(($(cat "$count") + 1))
echo $number > "$count"
read at how < "$plan"
if [ $number = $at ]; then
  case $how in
    before) echo 'told to fail' >&2; exit 1;;
    after) "$tool" "$@" >&2; exit 1;;
    killed) kill -9 $$;;
  esac
fi
exec "$tool" "$@"
)";
        writeFileAtomically(
            script_,
            fmt::format(script, count_.string(), plan().string(), test::realQEMU().imageTool.string()), 0755);
    }

    const Path& path() const { return script_; }
    void plan(int at, const std::string& how) const {
        writeFileAtomically(count_, std::string_view("0\n"));
        writeFileAtomically(plan(), std::to_string(at) + " " + how + "\n");
    }
    int calls() const { return std::stoi(readTextFile(count_)); }

  private:
    Path plan() const { return script_.parent_path() / "plan"; }
    Path script_, count_;
};

TEST_F(ChainInterruption, AToolThatFailsLosesNothing) {
    const FailingTool failing(storage.path());
    const ChainDisks broken(disks.bundle.directoryURL, failing.path());
    for (const auto& operation : chainOperations()) {
        for (const char* how : {"before", "after", "killed"}) {
            for (int call = 1;; ++call) {
                SCOPED_TRACE(std::string(operation.name) + ", call " + std::to_string(call) + " " + how);
                setUp(operation, disks);
                failing.plan(call, how);
                const bool isSuccess = attempt(operation, broken);
                if (failing.calls() < call) break;
                ++cases;
                // An undo goes on whatever happens; all else tells.
                EXPECT_EQ(isSuccess, operation.kind == Kind::rollback);
                if (operation.kind == Kind::capture) expectUndone(operation);
                if (!isNewState(operation, disks)) continue;
                if (!isSuccess) expectNothingLost(operation, disks);
                expectMended(operation, disks);
            }
        }
    }
    EXPECT_GT(cases, 200);
}

void ChainInterruption::interruptEverywhere(Interruption how) {
    for (const auto& operation : chainOperations()) {
        const auto work = [&] { operation.run(disks); };
        setUp(operation, disks);
        const auto whole = test::SyscallTracer().run(work, 0, how);
        ASSERT_TRUE(whole.isSuccess) << operation.name;
        for (int at = 1; at <= whole.calls; ++at) {
            SCOPED_TRACE(std::string(operation.name) + ", call " + std::to_string(at) + " of " +
                         std::to_string(whole.calls));
            setUp(operation, disks);
            if (!test::SyscallTracer().run(work, at, how).isInterrupted) continue;
            ++cases;
            if (isNewState(operation, disks)) expectMended(operation, disks);
        }
    }
}

TEST_F(ChainInterruption, AKilledProcessOrAFailedCallOfTheFileSystemLosesNothing) {
    if (!test::SyscallTracer::isPermitted()) GTEST_SKIP() << "tracing isn't permitted here";
    interruptEverywhere(Interruption::kill);
    EXPECT_GT(cases, 100);
    if (!test::SyscallTracer::canFail) return;
    cases = 0;
    interruptEverywhere(Interruption::fail);
    EXPECT_GT(cases, 50);
}

/// A file system of its own, filled up but for some room.
class FullDisk {
  public:
    FullDisk()
        : isMounted_(::mount("tmpfs", folder_.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=16m") ==
                     0) {}
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;
    ~FullDisk() {
        if (isMounted_) ::umount2(folder_.path().c_str(), MNT_DETACH);
    }

    bool isMounted() const { return isMounted_; }
    Path machine() const { return folder_ / "Machine"; }
    void fillUp(std::uintmax_t room) const {
        const auto free = fs::space(folder_.path()).available;
        writeFileAtomically(filler(), Bytes(free - std::min(free, room), 1));
    }
    void empty() const { fs::remove(filler()); }

  private:
    Path filler() const { return folder_ / "filler"; }
    test::TemporaryDirectory folder_;
    bool isMounted_;
};

TEST_F(ChainInterruption, AFullDiskLosesNothing) {
    const FullDisk disk;
    if (!disk.isMounted()) GTEST_SKIP() << "mounting a small disk needs root and a kernel that lets it";
    const ChainDisks full(disk.machine());
    for (const auto& operation : chainOperations()) {
        for (const std::uintmax_t room : {0, 4, 64, 128, 192, 256, 384, 512}) {
            SCOPED_TRACE(std::string(operation.name) + " with " + std::to_string(room) + " KiB left");
            // The last round may have left it full.
            disk.empty();
            setUp(operation, full);
            disk.fillUp(room << 10);
            if (attempt(operation, full) && operation.kind != Kind::rollback) break;
            ++cases;
            if (isNewState(operation, full)) {
                if (operation.kind != Kind::rollback) expectNothingLost(operation, full);
                SnapshotChainRepair(full.store).run(full.bundle);
                expectNothingLost(operation, full);
            }
            disk.empty();
            expectMended(operation, full);
        }
    }
    EXPECT_GT(cases, 20);
}

}  // namespace
}  // namespace dorvane
