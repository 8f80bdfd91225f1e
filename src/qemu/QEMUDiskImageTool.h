// SPDX-License-Identifier: Apache-2.0
// The library's disk operations through qemu-img.
#pragma once

#include "core/DiskImageTool.h"
#include "qemu/QEMUImageChainTool.h"

namespace dorvane {

class QEMUDiskImageTool : public DiskImageTool {
  public:
    explicit QEMUDiskImageTool(const Path& imageTool) : imageTool_(imageTool), chainTool_(imageTool) {}

    void createImage(const Path& path, std::uint64_t sizeBytes) const override;
    void resizeImage(const Path& path, std::uint64_t sizeBytes) const override;

  private:
    Path imageTool_;
    QEMUImageChainTool chainTool_;
};

}  // namespace dorvane
