// SPDX-License-Identifier: Apache-2.0
// What keeps the host's clipboard and a guest's in step, as the display session sees it.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "base/Bytes.h"

namespace dorvane {

enum class HostClipboardKind { text, image, files };

/// Main thread only, the callbacks too. Until `start` and after `stop` every operation does nothing.
class ClipboardBridging {
  public:
    virtual ~ClipboardBridging() = default;

    /// The host has these now.
    std::function<void(const std::set<HostClipboardKind>&)> onAnnounce;
    /// The host wants the guest's content.
    std::function<void(HostClipboardKind)> onRequest;
    // The host's content, for a guest that asked for it.
    std::function<void(const std::string&)> onProvideText;
    std::function<void(ByteView)> onProvideImage;
    std::function<void(ByteView)> onProvideFiles;
    /// The user should know why files were not provided.
    std::function<void(const std::string& message)> onFilesDeclined;
    /// Whether files of the host are announced.
    bool sharesFiles = false;

    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void guestDidGrab(const std::set<HostClipboardKind>& kinds) = 0;
    virtual void guestRequests(HostClipboardKind kind) = 0;
    virtual void guestDidProvideText(ByteView utf8) = 0;
    virtual void guestDidProvideImage(ByteView png) = 0;
    virtual void guestDidRelease() = 0;
};

}  // namespace dorvane
