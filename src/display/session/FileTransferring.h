// SPDX-License-Identifier: Apache-2.0
// What copies host files into a guest, as the display session sees it.
#pragma once

#include <exception>
#include <functional>
#include <vector>

#include "display/session/VDAgentMessage.h"
#include "runtime/Files.h"

namespace dorvane {

struct FileTransferProgress {
    std::string fileName;
    int index = 0;  // 1-based
    int total = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesTotal = 0;
    bool operator==(const FileTransferProgress&) const = default;
};

struct FileTransferItem {
    Path path;
    std::string fileName;
    std::uint64_t size = 0;
    bool operator==(const FileTransferItem&) const = default;
};

/// Main thread only, the callbacks too.
class FileTransferring {
  public:
    virtual ~FileTransferring() = default;

    std::function<void(const FileTransferProgress&)> onProgress;
    /// No error means that the guest has the file.
    std::function<void(const FileTransferItem&, std::exception_ptr error)> onItemFinished;
    std::function<void()> onQueueDrained;

    virtual void enqueue(const std::vector<Path>& files) = 0;
    virtual void handleStatus(std::uint32_t id, VDAgentFileTransferStatus status) = 0;
    virtual void cancel() = 0;
    virtual void agentDisconnected() = 0;
};

}  // namespace dorvane
