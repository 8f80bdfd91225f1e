// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsSharesGuestScript.h"

#include "base/Localized.h"
#include "qemu/WindowsBatchText.h"

namespace dorvane::WindowsSharesGuestScript {
namespace {

std::string uncPath(int port, const std::string& token) {
    return "\\\\" + std::string(hostAddress) + "@" + std::to_string(port) + "\\" + token;
}

constexpr std::string_view beforeUNC = R"BATCH(@echo off
title Dorvane Shared Folders
setlocal

rem The WebClient service may still be starting at logon.
set /a DVNTRIES=0
:wait
sc query WebClient | find "RUNNING" >nul
if not errorlevel 1 goto clean
set /a DVNTRIES+=1
if %DVNTRIES% geq 15 goto noservice
timeout /t 2 /nobreak >nul
goto wait

:clean
rem A letter that an earlier address holds is dead; the port may have changed.
for %%L in (Z Y X W V U T S) do (
    net use %%L: 2>nul | find "10.0.2.2" >nul && net use %%L: /delete /y >nul 2>&1
)

for %%L in (Z Y X W V U T S) do (
    if not exist %%L:\ (
        net use %%L: ")BATCH";

constexpr std::string_view beforeURL = R"BATCH(" /persistent:no >nul 2>&1 && (
            echo Dorvane shared folders are available as %%L:
            exit /b 0
        )
        net use %%L: ")BATCH";

constexpr std::string_view beforeManualURL = R"BATCH(" /persistent:no >nul 2>&1 && (
            echo Dorvane shared folders are available as %%L:
            exit /b 0
        )
    )
)

echo Could not map the Dorvane shared folders automatically.
echo In File Explorer, right-click This PC, choose "Map network drive" and enter:
echo   )BATCH";

constexpr std::string_view afterManualURL = R"BATCH(
pause
exit /b 1

:noservice
echo The WebClient service is not running.
echo Run Install-Dorvane-Drivers from the Dorvane drivers disc first.
pause
exit /b 1
)BATCH";

constexpr std::string_view text = R"TEXT(Dorvane shared folders
======================

Double-click Connect-Dorvane-Shares.cmd on this disc. It maps the folders that
Dorvane shares with this machine to a drive letter.

To map them by hand, choose "Map network drive" in File Explorer and enter:

  %@

If Windows refuses that address, enter this one instead:

  %@

The address changes with the port that Dorvane gets on the host. Use this disc
each time instead of an address that was written down.
)TEXT";

}  // namespace

std::string guestURL(int port, const std::string& token) {
    return "http://" + std::string(hostAddress) + ":" + std::to_string(port) + "/" + token + "/";
}

std::string connectScript(int port, const std::string& token) {
    const auto url = guestURL(port, token);
    std::string script(beforeUNC);
    script.append(uncPath(port, token)).append(beforeURL).append(url).append(beforeManualURL);
    return withDOSLineEnds(script.append(url).append(afterManualURL));
}

std::string instructions(int port, const std::string& token) {
    return withDOSLineEnds(formatted(text, guestURL(port, token), uncPath(port, token)));
}

}  // namespace dorvane::WindowsSharesGuestScript
