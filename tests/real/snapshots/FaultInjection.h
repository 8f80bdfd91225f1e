// SPDX-License-Identifier: Apache-2.0
// Makes one step of an operation fail, or kill the process: any change to the file system, any run of the
// disk tool, any copy, any save.
#pragma once

#include "core/ModelContext.h"
#include "platform/FileManager.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane::test {

enum class FaultKind { error, fullDisk, kill };

/// Process-wide. Counts steps from the arming on; the armed one fails.
struct Faults {
    static void arm(int step, FaultKind kind);
    /// Ends the counting; whether the step was reached.
    static bool disarm();
    /// Called before each step. Throws, or doesn't return, at the armed one.
    static void pass();
    /// The same for calls of the C library: false, with errno set, at the armed one.
    static bool passSystemCall();
};

class FaultyChainTool : public QCOW2ChainToolProtocol {
  public:
    explicit FaultyChainTool(std::shared_ptr<const QCOW2ChainToolProtocol> real) : real_(std::move(real)) {}

    std::optional<std::string> backingPath(const Path& image) const override {
        Faults::pass();
        return real_->backingPath(image);
    }
    void createOverlay(const Path& overlay, const std::string& backingPath) const override {
        Faults::pass();
        real_->createOverlay(overlay, backingPath);
    }
    std::uint64_t virtualSize(const Path& image) const override {
        Faults::pass();
        return real_->virtualSize(image);
    }
    void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backingPath,
                                            std::uint64_t size) const override {
        Faults::pass();
        real_->createOverlayWithoutOpeningBacking(overlay, backingPath, size);
    }
    void retargetBackingUnsafe(const Path& image, const std::optional<std::string>& path) const override {
        Faults::pass();
        real_->retargetBackingUnsafe(image, path);
    }
    void rebase(const Path& image, const std::optional<std::string>& backingPath) const override {
        Faults::pass();
        real_->rebase(image, backingPath);
    }
    void commit(const Path& overlay) const override {
        Faults::pass();
        real_->commit(overlay);
    }
    void resize(const Path& image, std::uint64_t sizeBytes) const override {
        Faults::pass();
        real_->resize(image, sizeBytes);
    }

  private:
    std::shared_ptr<const QCOW2ChainToolProtocol> real_;
};

class FaultyModelContext : public ModelContext {
  public:
    explicit FaultyModelContext(ModelContext& real) : real_(real) {}

    std::vector<VMRecordPointer> fetchRecords() override { return real_.fetchRecords(); }
    std::vector<VMSnapshotPointer> fetchSnapshots(const UUID& vmID) override {
        return real_.fetchSnapshots(vmID);
    }
    void insert(VMRecordPointer record) override { real_.insert(std::move(record)); }
    void insert(VMSnapshotPointer snapshot) override { real_.insert(std::move(snapshot)); }
    void remove(const VMRecordPointer& record) override { real_.remove(record); }
    void remove(const VMSnapshotPointer& snapshot) override { real_.remove(snapshot); }
    void save() override {
        Faults::pass();
        real_.save();
    }

  private:
    ModelContext& real_;
};

}  // namespace dorvane::test
