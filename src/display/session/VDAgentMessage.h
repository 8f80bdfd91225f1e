// SPDX-License-Identifier: Apache-2.0
// Messages of the SPICE agent protocol as values (vd_agent.h), without their bytes.
#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include "base/Bytes.h"

namespace dorvane {

/// Numbers as on the wire; `fileList` is this system's own.
enum class VDAgentClipboardFormat : std::uint32_t { none, utf8Text, png, bmp, tiff, jpg, fileList };

enum class VDAgentFileTransferStatus : std::uint32_t {
    canSendData,
    cancelled,
    error,
    success,
    notEnoughSpace,
    sessionLocked,
    agentNotConnected,
    disabled,
};

/// The bit by which this system's own guest tools say that they take lists of files from the clipboard.
constexpr std::uint32_t vdAgentClipboardFileListBit = 28;

/// What the guest's agent says.
struct VDAgentIncomingMessage {
    struct Capabilities {
        bool request = false;
        std::uint32_t bits = 0;
        bool operator==(const Capabilities&) const = default;
    };
    struct ClipboardGrab {
        std::vector<VDAgentClipboardFormat> formats;
        bool operator==(const ClipboardGrab&) const = default;
    };
    struct ClipboardRequest {
        VDAgentClipboardFormat format = VDAgentClipboardFormat::none;
        bool operator==(const ClipboardRequest&) const = default;
    };
    struct ClipboardData {
        VDAgentClipboardFormat format = VDAgentClipboardFormat::none;
        Bytes content;
        bool operator==(const ClipboardData&) const = default;
    };
    struct FileTransferStatus {
        std::uint32_t id = 0;
        VDAgentFileTransferStatus status = VDAgentFileTransferStatus::error;
        bool operator==(const FileTransferStatus&) const = default;
    };
    struct Ignored {
        std::uint32_t type = 0;
        bool operator==(const Ignored&) const = default;
    };
    struct ClipboardRelease {
        bool operator==(const ClipboardRelease&) const = default;
    };
    using Kind = std::variant<Capabilities, ClipboardGrab, ClipboardRequest, ClipboardData,
                              FileTransferStatus, Ignored, ClipboardRelease>;
};

}  // namespace dorvane
