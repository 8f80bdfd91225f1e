// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsGraphicsGuestMarker.h"

namespace dorvane::WindowsGraphicsGuestMarker {

std::string contents(bool accelerated) {
    return std::string(accelerated ? "accelerated" : "basic") +
           "\n"
           "\n"
           "Dorvane rewrites this file at every boot. It tells the guest tools which\n"
           "display driver to keep: viogpu3d when graphics acceleration is on,\n"
           "viogpudo when it is off. Change the setting in Dorvane, not here.\n";
}

}  // namespace dorvane::WindowsGraphicsGuestMarker
