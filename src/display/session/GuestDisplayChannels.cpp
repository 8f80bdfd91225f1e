// SPDX-License-Identifier: Apache-2.0
#include "display/session/GuestDisplayChannels.h"

namespace dorvane {

std::optional<GuestDisplayChannel> displayChannel(const GuestDisplaySource::Kind& source) {
    if (const auto* vnc = std::get_if<GuestDisplaySource::VNC>(&source)) return VNCChannel{vnc->socketPath};
    if (const auto* dbus = std::get_if<GuestDisplaySource::DBus>(&source))
        return DBusChannel{dbus->qmpSocketPath};
    return std::nullopt;
}

std::optional<std::string> agentSocketPath(const GuestDisplaySource::Kind& source) {
    if (const auto* vnc = std::get_if<GuestDisplaySource::VNC>(&source)) return vnc->agentSocketPath;
    if (const auto* dbus = std::get_if<GuestDisplaySource::DBus>(&source)) return dbus->agentSocketPath;
    return std::nullopt;
}

}  // namespace dorvane
