// SPDX-License-Identifier: Apache-2.0
// The batch file that lets Dorvane run commands inside a Windows guest.
#pragma once

#include <string>

namespace dorvane::WindowsSSHGuestScript {

/// Installs the VM's key for OpenSSH Server. ASCII, lines ended by carriage return and line feed. With
/// "/quiet" as its first argument the script never waits for a key. `publicKey` is one line.
std::string configureScript(const std::string& publicKey);

}  // namespace dorvane::WindowsSSHGuestScript
