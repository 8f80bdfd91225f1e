// SPDX-License-Identifier: Apache-2.0
// Every step of every operation on a stopped machine's snapshots fails in turn, or kills the process; after
// the next start nothing that a user had is lost, and nothing half-made is left.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <iostream>

#include "core/ConfigHash.h"
#include "snapshots/FaultInjection.h"
#include "snapshots/SnapshotMetadata.h"
#include "snapshots/SnapshotScene.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;
using test::FaultKind;
using test::Faults;

constexpr int faultReached = 0;
constexpr int faultNotReached = 42;

/// A library of one machine in a folder. Its snapshots are a tree: A <- B, A <- C <- live; M is a leaf on A
/// with memory.
class Library {
  public:
    explicit Library(const Path& folder)
        : folder_(folder),
          store_(folder / "library.store"),
          service({.runtime = real_.runtime(),
                   .gate = gate_,
                   .fileManager = files_,
                   .bookmarks = bookmarks_,
                   .modelContext = store_,
                   .chainStore = &chain_}) {
        const auto records = store_.fetchRecords();
        if (records.empty()) return;
        vm = records.front();
        // The folder may be a copy.
        vm->vmPath = (folder / "Machine").string();
        vm->status = VMStatus::stopped;
        store_.save();
    }

    /// Makes the machine and its tree.
    void fill() {
        vm = std::make_shared<VMRecord>();
        vm->name = "Machine";
        vm->vmPath = (folder_ / "Machine").string();
        vm->createdAt = real_.runtime().clock.date();
        const auto bundle = vm->bundle();
        fs::create_directory(bundle.directoryURL);
        DorvaneVMConfig config;
        config.diskSizeBytes = diskSize;
        config.write(bundle.configFile());
        test::imageTool(
            {"create", "-q", "-f", "qcow2", bundle.qcow2Disk().string(), std::to_string(diskSize)});
        store_.insert(vm);
        store_.save();
        write("a");
        const auto a = take("A");
        write("b");
        take("B");
        restore(a);
        write("m");
        const auto m = take("M");
        const SnapshotFiles files(bundle, m->id);
        writeFileAtomically(files.state(), "memory of M");
        writeFileAtomically(files.stateDevices(), "devices of M");
        m->includesRAMState = true;
        store_.save();
        restore(a);
        write("c");
        take("C");
        write("live");
        writeFileAtomically(bundle.savedState(), "suspended");
        writeFileAtomically(bundle.savedStateHash(), configHash(config));
    }

    template <typename T>
    T run(Task<T> task) {
        return real_.run(std::move(task));
    }
    VMSnapshotPointer take(const std::string& name) {
        return run(service.takeSnapshot(vm, name, false, VMSnapshotKind::manual));
    }
    void restore(const VMSnapshotPointer& snapshot) { run(service.restoreSnapshot(snapshot, vm)); }
    void remove(const std::string& name) { run(service.deleteSnapshot(named(name), vm)); }
    VMSnapshotPointer named(const std::string& name) {
        for (const auto& row : run(service.listSnapshots(vm)))
            if (row->name == name) return row;
        throw std::logic_error("no such snapshot");
    }

    /// What the guest does: fills its disk with a letter, and its firmware's variables with a word.
    void write(const std::string& word) {
        const auto flat = folder_ / "flat.raw";
        writeFileAtomically(flat, std::string(diskSize, word.front()));
        test::imageTool(
            {"convert", "-n", "-f", "raw", "-O", "qcow2", flat.string(), vm->bundle().qcow2Disk().string()});
        fs::remove(flat);
        writeFileAtomically(vm->bundle().nvram(), "variables " + word);
    }
    /// The first letter of each disk is enough, once all of it is known to be the same.
    std::string content(const Path& disk) const {
        const auto flat = folder_ / "flat.raw";
        test::imageTool({"convert", "-O", "raw", disk.string(), flat.string()});
        const auto text = readTextFile(flat);
        fs::remove(flat);
        if (text.size() != diskSize || text.find_first_not_of(text.front()) != std::string::npos)
            return "mixed content";
        return text.substr(0, 1);
    }

    void expectNothingLost(const std::vector<std::string>& allowedLive);

    VMRecordPointer vm;

  private:
    static constexpr std::size_t diskSize = 256 << 10;

    void expectSound(const Path& disk) const {
        EXPECT_NO_THROW(test::imageTool({"check", "-q", disk.string()})) << disk;
        EXPECT_NE(tool_->backingPath(disk).value_or("none").front(), '/');
    }
    void expectNoLeftovers() const {
        for (const auto& entry : fs::recursive_directory_iterator(vm->bundle().directoryURL)) {
            const auto name = entry.path().filename().string();
            EXPECT_FALSE(name.front() == '.' || name.ends_with(".restoring") ||
                         name.ends_with(".discarded") || name.ends_with(".deleted"))
                << entry.path();
        }
    }

    const Path folder_;
    test::RealTime real_;
    VMOperationGate gate_;
    LinuxFileManager files_{folder_ / "trash"};
    SecurityScopedBookmarkStore bookmarks_;
    const std::shared_ptr<const QCOW2ChainToolProtocol> tool_ = std::make_shared<test::FaultyChainTool>(
        std::make_shared<QEMUImageChainTool>(test::realQEMU().imageTool));
    SnapshotChainStore chain_{tool_};
    test::FaultyModelContext store_;

  public:
    VMSnapshotService service;
};

/// As after the next start.
void Library::expectNothingLost(const std::vector<std::string>& allowedLive) {
    run(service.recover(vm));
    const auto bundle = vm->bundle();
    std::set<std::string> listed;
    for (const auto& row : run(service.listSnapshots(vm))) {
        SCOPED_TRACE("snapshot " + row->name);
        listed.insert(row->id.text());
        const SnapshotFiles files(bundle, row->id);
        const auto expected = row->name == "new" ? "l" : asciiLowercased(row->name);
        EXPECT_EQ(content(files.disk(VMOSType::windows)), expected);
        EXPECT_EQ(readTextFile(files.nvram(VMOSType::windows)).substr(10, 1), expected);
        EXPECT_TRUE(fs::exists(files.config()));
        EXPECT_EQ(SnapshotMetadata::read(files.metadata()).name, row->name);
        EXPECT_EQ(row->parentSnapshotID.has_value(),
                  tool_->backingPath(files.disk(VMOSType::windows)).has_value());
        expectSound(files.disk(VMOSType::windows));
    }
    std::set<std::string> present;
    for (const auto& entry : fs::directory_iterator(bundle.snapshotsDirectory()))
        present.insert(entry.path().filename().string());
    EXPECT_EQ(present, listed);
    expectSound(bundle.qcow2Disk());
    expectNoLeftovers();
    const auto live = content(bundle.qcow2Disk());
    EXPECT_THAT(allowedLive, testing::Contains(live));
    // Disk, variables and memory are of one moment.
    EXPECT_EQ(readTextFile(bundle.nvram()).substr(10, 1), live);
    if (bundle.hasSavedState())
        EXPECT_EQ(readTextFile(bundle.savedState()), live == "l" ? "suspended" : "memory of M");
    else
        EXPECT_NE(live, "l") << "the suspended state is gone although its disk is here";
}

struct Operation {
    std::string name;
    std::vector<std::string> live;
    void (*perform)(Library&);
};

const Operation operations[] = {
    {"take", {"l"}, [](Library& library) { library.take("new"); }},
    {"restore", {"l", "b"}, [](Library& library) { library.restore(library.named("B")); }},
    {"restore with memory", {"l", "m"}, [](Library& library) { library.restore(library.named("M")); }},
    {"delete a leaf", {"l"}, [](Library& library) { library.remove("B"); }},
    {"delete below the live disk", {"l"}, [](Library& library) { library.remove("C"); }},
    {"delete with several children", {"l"}, [](Library& library) { library.remove("A"); }},
};

/// In a process of its own, which may be killed. Whether the step was there to fail.
bool performBroken(const Path& folder, const Operation& operation, int step, FaultKind kind) {
    const auto pid = ::fork();
    if (pid == 0) {
        int status = faultNotReached;
        try {
            Library library(folder);
            library.run(library.service.recover(library.vm));
            Faults::arm(step, kind);
            try {
                operation.perform(library);
            } catch (const std::exception&) {
                // What it leaves is looked at by the parent.
            }
            if (Faults::disarm()) status = faultReached;
        } catch (const std::exception& error) {
            std::cerr << error.what() << '\n';
            status = 1;
        }
        ::_exit(status);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) return true;
    EXPECT_TRUE(WEXITSTATUS(status) == faultReached || WEXITSTATUS(status) == faultNotReached);
    return WEXITSTATUS(status) == faultReached;
}

TEST(BrokenSnapshots, NoStepThatFailsOrDiesLosesAnything) {
    test::TemporaryDirectory folder;
    const auto original = folder / "original";
    fs::create_directory(original);
    Library(original).fill();
    int cases = 0;
    for (const auto& operation : operations) {
        for (const auto kind : {FaultKind::kill, FaultKind::error}) {
            const int stride = kind == FaultKind::kill || std::getenv("DORVANE_THOROUGH") != nullptr ? 1 : 3;
            for (int step = 1;; step += stride) {
                SCOPED_TRACE(operation.name + ", step " + std::to_string(step) +
                             (kind == FaultKind::kill ? " killed" : " failed"));
                const auto copy = folder / "copy";
                fs::copy(original, copy, fs::copy_options::recursive);
                const bool wasReached = performBroken(copy, operation, step, kind);
                Library(copy).expectNothingLost(operation.live);
                fs::remove_all(copy);
                if (!wasReached || testing::Test::HasFailure()) break;
                ++cases;
            }
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(cases, 100);
}

}  // namespace
}  // namespace dorvane
