// SPDX-License-Identifier: Apache-2.0
#include "automation/GuestScreenshotCommand.h"

namespace dorvane {
namespace {

constexpr auto macOSCommand =
    R"sh(f="$(mktemp -t dorvane).png"; screencapture -x -t png "$f" && cat "$f"; s=$?; rm -f "$f"; exit $s)sh";

constexpr auto linuxScript = R"sh(if command -v grim >/dev/null 2>&1; then exec grim -; fi
export DISPLAY="${DISPLAY:-:0}"
if command -v scrot >/dev/null 2>&1; then d="$(mktemp -d)"; scrot -o "$d/screen.png" && cat "$d/screen.png"; s=$?; rm -rf "$d"; exit $s; fi
if command -v import >/dev/null 2>&1; then exec import -window root png:-; fi
echo "No screenshot tool found in guest (tried grim, scrot, import). Install grim (Wayland) or scrot (X11) and retry." 1>&2
exit 127)sh";

constexpr auto windowsCommand =
    R"sh(echo "Windows guests are captured on the host side; this path should not be reached." 1>&2; exit 1)sh";

}  // namespace

std::string guestScreenshotCommand(VMOSType os) {
    switch (os) {
        case VMOSType::macOS:
            return macOSCommand;
        case VMOSType::linux:
            return linuxScript;
        case VMOSType::windows:
            return windowsCommand;
    }
    return {};
}

}  // namespace dorvane
