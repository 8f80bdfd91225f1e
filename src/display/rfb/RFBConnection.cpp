// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBConnection.h"

#include "display/rfb/RFBLink.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

std::vector<RFBEncoding> RFBConnection::encodings(bool preferTight) {
    using enum RFBEncoding;
    if (preferTight)
        return {
            copyRect,      tight, zrle, raw, extendedDesktopSize, desktopSize, cursor, qemuExtendedKeyEvent,
            compressLevel5};
    return {copyRect,      raw, tight, zrle, extendedDesktopSize, desktopSize, cursor, qemuExtendedKeyEvent,
            compressLevel5};
}

RFBConnection::RFBConnection(const Runtime& runtime, std::string socketPath, bool preferTight)
    : RFBConnection(runtime, std::move(socketPath), encodings(preferTight)) {}

RFBConnection::RFBConnection(const Runtime& runtime, std::string socketPath,
                             std::vector<RFBEncoding> encodings)
    : link_(std::make_shared<RFBLink>(runtime, std::move(socketPath), std::move(encodings))) {}

RFBConnection::~RFBConnection() { link_->abandon(); }

Task<void> RFBConnection::connect(Duration timeout) {
    // Copies: this object may go away while its link connects.
    const auto link = link_;
    RFBLink::Callbacks callbacks{onFrame, onResize, onDisconnect};
    co_await onExecutor(link->executor(), RFBLink::open(link, std::move(callbacks), timeout));
}

void RFBConnection::sendPointer(std::uint8_t buttonMask, int x, int y) {
    send({RFBClientMessage::PointerEvent{buttonMask, x, y}});
}

void RFBConnection::sendKey(const GuestKey& key, bool down) { link_->sendKey(key, down); }

void RFBConnection::send(RFBClientMessage message) { link_->send(std::move(message)); }

void RFBConnection::close() { link_->close(); }

}  // namespace dorvane
