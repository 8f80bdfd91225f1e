// SPDX-License-Identifier: Apache-2.0
// A disk tool whose layers are small JSON files: they have headers, clusters and content like real ones, and
// any call can fail before it does anything or in the middle.
#pragma once

#include <fstream>
#include <map>
#include <vector>

#include "base/JSON.h"
#include "core/DorvaneError.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane::test {

class FakeChainTool : public QCOW2ChainToolProtocol {
  public:
    using Content = std::map<std::string, std::string>;
    enum class Failure { before, midway };

    /// The calls so far, as "commit disk.qcow2": the name of the file's directory stands before a frozen one.
    mutable std::vector<std::string> calls;
    /// The number of the call that fails, counted from 1; 0 for none.
    int failingCall = 0;
    Failure failure = Failure::before;

    void startCounting(int failing = 0, Failure how = Failure::before);
    bool hasFailed() const { return failingCall > 0 && std::ssize(calls) >= failingCall; }

    static void createDisk(const Path& image) { write(image, {{"size", 64}, {"data", JSON::object()}}); }
    static void guestWrites(const Path& image, const std::string& cluster, const std::string& value);
    /// What a guest would read; throws where a layer is missing.
    static Content content(const Path& image);

    std::optional<std::string> backingPath(const Path& image) const override;
    void createOverlay(const Path& overlay, const std::string& backing) const override;
    std::uint64_t virtualSize(const Path& image) const override;
    void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backing,
                                            std::uint64_t size) const override;
    void retargetBackingUnsafe(const Path& image, const std::optional<std::string>& backing) const override;
    void rebase(const Path& image, const std::optional<std::string>& backing) const override;
    void commit(const Path& overlay) const override;
    void resize(const Path&, std::uint64_t) const override { throw failed("snapshots resize nothing"); }

  private:
    static JSON read(const Path& image);
    static void write(const Path& image, const JSON& layer) { std::ofstream(image) << layer; }
    static Path resolved(const Path& image, const std::string& backing) {
        return image.parent_path() / backing;
    }
    static void setBacking(JSON& layer, const std::optional<std::string>& backing);
    static DorvaneError failed(const std::string& words) {
        return DorvaneError(DorvaneError::Case::vmSnapshotFailed, "The disk image tool failed: " + words);
    }

    /// Returns whether this call has to stop in the middle.
    bool begin(const char* verb, const Path& image) const;
    void endMidway() const {
        if (isCut_) throw failed("told to stop midway");
    }

    mutable bool isCut_ = false;
};

}  // namespace dorvane::test
