// SPDX-License-Identifier: Apache-2.0
// Loopback ports for a Windows guest's folders and SSH, and the secret in the folders' address.
#pragma once

#include <string>
#include <vector>

namespace dorvane {

/// Both ends belong to it.
struct PortRange {
    int lower;
    int upper;

    bool contains(int port) const { return port >= lower && port <= upper; }
    /// Every port, ascending, with the preferred one first when it lies in the range.
    std::vector<int> candidates(int preferred) const;
};

constexpr PortRange windowsSharesPorts{47000, 47099};
constexpr PortRange windowsSSHPorts{47100, 47199};

namespace WindowsSharesPortAllocator {
/// The first port that a TCP socket can be bound to on 127.0.0.1; the lower bound when there is none.
int pickFreePort(const PortRange& range);
/// 16 bytes of the system's secure generator as 32 lower-case hexadecimal digits.
std::string makeToken();
}  // namespace WindowsSharesPortAllocator

}  // namespace dorvane
