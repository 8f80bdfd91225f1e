// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMURuntimeDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "qemu/WindowsGraphicsGuestMarker.h"
#include "qemu/WindowsSSHGuestScript.h"
#include "qemu/WindowsSharesGuestScript.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

/// Anybody may write to the base, so the directory must be this user's own and no link.
void makePrivateDirectory(const Path& path) {
    if (::mkdir(path.c_str(), 0700) == 0) return;
    if (errno != EEXIST) throw FileError("create", path, errno);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) throw FileError("read", path, errno);
    if (!S_ISDIR(status.st_mode)) throw FileError("use", path, ENOTDIR);
    if (status.st_uid != ::geteuid()) throw FileError("use", path, EPERM);
    if (::chmod(path.c_str(), 0700) != 0) throw FileError("use", path, errno);
}

/// Without a sync: these files mean nothing after a crash.
void writeScratch(const Path& path, std::string_view text) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    if (!stream) throw FileError("write", path, EIO);
}

void link(const Path& at, const Path& target) {
    removeQuietly(at);
    fs::create_symlink(target, at);
}

}  // namespace

QEMURuntimeDirectory QEMURuntimeDirectory::make(const UUID& id, const Path& base) {
    fs::create_directories(base);
    makePrivateDirectory(base / "dvn");
    QEMURuntimeDirectory directory(base / "dvn" / id.shortText());
    makePrivateDirectory(directory.path());
    return directory;
}

Path QEMURuntimeDirectory::writeBootScript() const {
    auto directory = path_ / "boot";
    fs::create_directories(directory);
    std::string script = "@echo -off\necho Dorvane: booting the Windows installer...\n";
    // Repeated, since the shell's map of file systems isn't ready at first.
    for (int attempt = 0; attempt < 3; ++attempt)
        for (const auto* volume : {"fs2", "fs1", "fs3", "fs4"})
            script += std::string(volume) + ":\\efi\\boot\\bootaa64.efi\n";
    script += "echo Dorvane: no Windows installer found.\n";
    writeScratch(directory / "startup.nsh", script);
    return directory;
}

Path QEMURuntimeDirectory::linkSystemDisk(const VMBundle& bundle) const {
    fs::create_directories(bundle.snapshotsDirectory());
    link(path_ / "Snapshots", bundle.snapshotsDirectory());
    link(systemDiskLink(0), bundle.qcow2Disk());
    return systemDiskLink(0);
}

void QEMURuntimeDirectory::repointLink(const Path& at, const Path& target) {
    const auto temporary = at.parent_path() / ("." + at.filename().string() + ".new");
    link(temporary, target);
    if (::rename(temporary.c_str(), at.c_str()) == 0) return;
    const int number = errno;
    removeQuietly(temporary);
    throw FileError("replace", at, number);
}

void QEMURuntimeDirectory::writeGraphicsMarker(bool accelerated) const {
    fs::create_directories(sharesDisk());
    writeScratch(sharesDisk() / WindowsGraphicsGuestMarker::fileName,
                 WindowsGraphicsGuestMarker::contents(accelerated));
}

void QEMURuntimeDirectory::writeSSHDisk(const std::string& publicKey) const {
    fs::create_directories(sharesDisk());
    writeScratch(sharesDisk() / "Configure-Dorvane-SSH.cmd",
                 WindowsSSHGuestScript::configureScript(publicKey));
    writeScratch(sharesDisk() / "dorvane-ssh.pub", publicKey + "\n");
}

void QEMURuntimeDirectory::writeSharesDisk(int port, const std::string& token) const {
    fs::create_directories(sharesDisk());
    writeScratch(sharesDisk() / "Connect-Dorvane-Shares.cmd",
                 WindowsSharesGuestScript::connectScript(port, token));
    writeScratch(sharesDisk() / "dorvane-shares.txt", WindowsSharesGuestScript::instructions(port, token));
}

void QEMURuntimeDirectory::removeLeftoverSockets() const {
    for (const auto& socket : {vncSocket(), agentSocket(), displaySocket(), qmpSocket()})
        removeQuietly(socket);
}

void QEMURuntimeDirectory::remove() const {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

}  // namespace dorvane
