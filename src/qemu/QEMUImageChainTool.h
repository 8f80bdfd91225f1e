// SPDX-License-Identifier: Apache-2.0
// Layer chains through qemu-img.
#pragma once

#include <vector>

#include "base/JSON.h"
#include "qemu/QCOW2ChainToolProtocol.h"
#include "qemu/QEMURuntimeResources.h"
#include "runtime/Logger.h"

namespace dorvane {

/// A value; safe on any thread.
class QEMUImageChainTool : public QCOW2ChainToolProtocol {
  public:
    /// A tool only when the resources were found and have it.
    static std::optional<QEMUImageChainTool> locate(const std::optional<QEMURuntimeResources>& resources);

    explicit QEMUImageChainTool(Path imageTool) : imageTool_(std::move(imageTool)) {}

    std::optional<std::string> backingPath(const Path& image) const override;
    void createOverlay(const Path& overlay, const std::string& backingPath) const override;
    std::uint64_t virtualSize(const Path& image) const override;
    void createOverlayWithoutOpeningBacking(const Path& overlay, const std::string& backingPath,
                                            std::uint64_t virtualSizeBytes) const override;
    void retargetBackingUnsafe(const Path& image,
                               const std::optional<std::string>& backingPath) const override;
    void rebase(const Path& image, const std::optional<std::string>& backingPath) const override;
    void commit(const Path& overlay) const override;
    void resize(const Path& image, std::uint64_t sizeBytes) const override;

  private:
    std::string run(std::vector<std::string> arguments) const;
    JSON info(const Path& image) const;

    Path imageTool_;
    Logger logger_{"QEMUImageChainTool"};
};

}  // namespace dorvane
