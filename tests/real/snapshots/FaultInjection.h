// SPDX-License-Identifier: Apache-2.0
// Makes one step of an operation fail, or kill the process: any change to the file system, any run of the
// disk tool, any copy, any save.
#pragma once

#include "core/SQLiteModelContext.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane::test {

enum class FaultKind { error, kill };

/// Process-wide. Counts steps from the arming on; the armed one fails.
struct Faults {
    static void arm(int step, FaultKind kind);
    /// Ends the counting; whether the step was reached.
    static bool disarm();
    /// Called before each step: whether it is the armed one and has to fail. Doesn't return where that kills.
    static bool isDue();
    /// The same for what throws.
    static void pass();
};

class FaultyChainTool : public QCOW2ChainToolProtocol {
  public:
    explicit FaultyChainTool(std::shared_ptr<const QCOW2ChainToolProtocol> real) : real_(std::move(real)) {}

    std::optional<std::string> backingPath(const Path& image) const override {
        return next().backingPath(image);
    }
    void createOverlay(const Path& overlay, const std::string& backingPath) const override {
        next().createOverlay(overlay, backingPath);
    }
    std::uint64_t virtualSize(const Path& image) const override { return next().virtualSize(image); }
    void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backingPath,
                                            std::uint64_t size) const override {
        next().createOverlayWithoutOpeningBacking(overlay, backingPath, size);
    }
    void retargetBackingUnsafe(const Path& image, const std::optional<std::string>& path) const override {
        next().retargetBackingUnsafe(image, path);
    }
    void rebase(const Path& image, const std::optional<std::string>& backingPath) const override {
        next().rebase(image, backingPath);
    }
    void commit(const Path& overlay) const override { next().commit(overlay); }
    void resize(const Path& image, std::uint64_t sizeBytes) const override {
        next().resize(image, sizeBytes);
    }

  private:
    const QCOW2ChainToolProtocol& next() const {
        Faults::pass();
        return *real_;
    }
    std::shared_ptr<const QCOW2ChainToolProtocol> real_;
};

struct FaultyModelContext : SQLiteModelContext {
    using SQLiteModelContext::SQLiteModelContext;
    void save() override {
        Faults::pass();
        SQLiteModelContext::save();
    }
};

}  // namespace dorvane::test
