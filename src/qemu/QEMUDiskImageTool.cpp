// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUDiskImageTool.h"

#include "base/Localized.h"
#include "qemu/QEMUImageTool.h"

namespace dorvane {

void QEMUDiskImageTool::createImage(const Path& path, std::uint64_t sizeBytes) const {
    QEMUImageTool::run(imageTool_, {"create", "-q", "-f", "qcow2", path.string(), std::to_string(sizeBytes)},
                       localized("Could not create the virtual machine's disk image."));
}

void QEMUDiskImageTool::resizeImage(const Path& path, std::uint64_t sizeBytes) const {
    chainTool_.resize(path, sizeBytes);
}

}  // namespace dorvane
