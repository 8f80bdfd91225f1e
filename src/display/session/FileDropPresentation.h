// SPDX-License-Identifier: Apache-2.0
// What the view tells of files on their way into the guest.
#pragma once

#include <optional>

#include "display/session/FileTransferring.h"

namespace dorvane {

struct FileDropPresentation {
    std::optional<FileTransferProgress> progress;
    /// Something that the user should read: the last failure of the batch, or a hint.
    std::optional<std::string> message;
    bool isError = false;
    /// Nothing is on its way any more; the view may let it fade.
    bool isFinished = false;
    bool operator==(const FileDropPresentation&) const = default;
};

}  // namespace dorvane
