// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsSSHGuestScript.h"

#include "base/Text.h"
#include "qemu/WindowsBatchText.h"

namespace dorvane::WindowsSSHGuestScript {
namespace {

constexpr std::string_view beforeKey = R"BATCH(@echo off
title Dorvane SSH Access
setlocal
set "DVNQUIET="
if /i "%~1"=="/quiet" set "DVNQUIET=1"

net session >nul 2>&1
if errorlevel 1 (
    echo This script must run as administrator.
    echo Right-click it and choose "Run as administrator".
    if not defined DVNQUIET pause
    exit /b 1
)

sc query sshd >nul 2>&1
if errorlevel 1 (
    echo OpenSSH Server is not installed yet.
    echo Run Install-Dorvane-Drivers from the Dorvane drivers disc first.
    if not defined DVNQUIET pause
    exit /b 1
)

if not exist "%ProgramData%\ssh" mkdir "%ProgramData%\ssh"
set "DVNKEYS=%ProgramData%\ssh\administrators_authorized_keys"
)BATCH";

constexpr std::string_view afterKey = R"BATCH(
rem sshd ignores a key file that others can read.
icacls "%DVNKEYS%" /inheritance:r /grant "Administrators:F" /grant "SYSTEM:F" >nul

sc config sshd start= auto >nul
net start sshd >nul 2>&1

echo Checking the result:
sc query sshd | find "RUNNING" >nul
if errorlevel 1 (
    echo   sshd: NOT RUNNING - see the Event Viewer
) else (
    echo   sshd: RUNNING
)
icacls "%DVNKEYS%" | find "Users:" >nul
if errorlevel 1 (
    echo   key file: ok
) else (
    echo   key file: TOO PERMISSIVE - sshd will ignore it
)

echo Dorvane can now run commands inside this VM.
if not defined DVNQUIET pause
exit /b 0
)BATCH";

}  // namespace

std::string configureScript(const std::string& publicKey) {
    // The redirection stands first: behind the key, a digit at its end would be taken for a stream's number.
    const auto key = "> \"%DVNKEYS%\" echo " + std::string(trimmed(publicKey)) + "\n";
    return withDOSLineEnds(std::string(beforeKey) + key + std::string(afterKey));
}

}  // namespace dorvane::WindowsSSHGuestScript
