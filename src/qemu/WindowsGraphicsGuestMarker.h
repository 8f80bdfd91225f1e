// SPDX-License-Identifier: Apache-2.0
// The file that tells the guest tools which display driver to keep.
#pragma once

#include <string>

namespace dorvane::WindowsGraphicsGuestMarker {

constexpr auto fileName = "Dorvane-Graphics.txt";

/// The guest tools read the first line: "accelerated" or "basic", as this launch shows it.
std::string contents(bool accelerated);

}  // namespace dorvane::WindowsGraphicsGuestMarker
