// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsSharesPortAllocator.h"

#include "base/Hex.h"
#include "base/RandomBytes.h"
#include "runtime/Sockets.h"

namespace dorvane {

std::vector<int> PortRange::candidates(int preferred) const {
    std::vector<int> ports;
    if (contains(preferred)) ports.push_back(preferred);
    for (int port = lower; port <= upper; ++port)
        if (port != preferred) ports.push_back(port);
    return ports;
}

int WindowsSharesPortAllocator::pickFreePort(const PortRange& range) {
    for (int port = range.lower; port <= range.upper; ++port)
        if (isLoopbackPortFree(static_cast<std::uint16_t>(port))) return port;
    return range.lower;
}

std::string WindowsSharesPortAllocator::makeToken() { return hexText(randomBytes(16)); }

}  // namespace dorvane
