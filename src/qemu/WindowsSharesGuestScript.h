// SPDX-License-Identifier: Apache-2.0
// How a Windows guest reaches the shared folders: a batch file, and the same in words.
#pragma once

#include <string>

namespace dorvane::WindowsSharesGuestScript {

/// The host as the guest's user-mode network shows it.
constexpr auto hostAddress = "10.0.2.2";

/// "http://10.0.2.2:<port>/<token>/".
std::string guestURL(int port, const std::string& token);
/// Maps the folders to the first free letter from Z down; running it twice leaves one mapping. ASCII, lines
/// ended by carriage return and line feed.
std::string connectScript(int port, const std::string& token);
/// The text beside the script, for a person; the same line ends.
std::string instructions(int port, const std::string& token);

}  // namespace dorvane::WindowsSharesGuestScript
