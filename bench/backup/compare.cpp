// SPDX-License-Identifier: Apache-2.0
// Measures a backup and its restore beside bsdtar making and reading the same ZIP in the same run: a machine
// whose disk is full, and one whose disk is nearly all holes. The data is half compressible.
//
//   dorvane_bench_backup [folder [gigabytes of the sparse disk]]      needs some 4 GB below the folder
//
// The peer is the `bsdtar` of the search path, or DORVANE_BSDTAR. It is told to leave holes when it unpacks
// (-S): without, it would need the whole disk's room. Both archives are on the disk when the time stops. Ends
// with 1 when anything is slower than the peer, or a restored disk differs or has lost its holes.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "platform/linux/LinuxFileManager.h"
#include "platform/linux/LinuxHostSystem.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Logger.h"
#include "snapshots/VMBackupServiceUnpacking.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t gigabyte = 1 << 30;
constexpr std::uint64_t extentBytes = 16 << 20;
constexpr auto dataBytes = gigabyte;
constexpr std::uint64_t defaultSparseGigabytes = 100;

/// A folder of the program's own, removed with everything in it.
class Scratch {
  public:
    explicit Scratch(const Path& below) : path_(below / ("dorvane-bench-" + UUID::random().shortText())) {
        fs::create_directories(path_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Path operator/(const char* name) const { return path_ / name; }
    std::string text() const { return path_.string(); }

  private:
    Path path_;
};

/// Of each block one half is random and the other repeats itself.
void fill(Bytes& extent, std::mt19937_64& random) {
    constexpr std::size_t block = 4096;
    for (std::size_t at = 0; at < extent.size(); at += 8) {
        const std::uint64_t word = at % block < block / 2 ? random() : 0x2065687420736920 + at % 96;
        std::memcpy(&extent[at], &word, 8);
    }
}

void makeDisk(const Path& path, std::uint64_t size) {
    const FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd || ::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) throw FileError("write", path, errno);
    std::mt19937_64 random(7);
    Bytes extent(extentBytes);
    const auto stride = size / (dataBytes / extentBytes);
    for (std::uint64_t offset = 0; offset + extentBytes <= size; offset += stride) {
        fill(extent, random);
        if (::pwrite(fd.get(), extent.data(), extent.size(), static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(extent.size()))
            throw FileError("write", path, errno);
    }
}

VMBundle makeBundle(const Path& directory, std::uint64_t diskBytes, const HostSystem& host) {
    const VMBundle bundle(directory);
    fs::create_directories(directory);
    DorvaneVMConfig config;
    config.os = VMOSType::linux;
    config.diskSizeBytes = diskBytes;
    config.macAddress = host.randomMACAddress();
    config.write(bundle.configFile());
    makeDisk(bundle.rawDisk(), diskBytes);
    return bundle;
}

template <typename Work>
double seconds(Work work) {
    ::sync();
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string bsdtar() {
    const char* given = std::getenv("DORVANE_BSDTAR");
    return given != nullptr ? given : "bsdtar";
}

void runPeer(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::uint64_t allocatedBytes(const Path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) throw FileError("read", path, errno);
    return static_cast<std::uint64_t>(info.st_blocks) * 512;
}

/// Whether both hold the same, read where either has data.
bool isSame(const Path& one, const Path& other) {
    const FileDescriptor first(::open(one.c_str(), O_RDONLY | O_CLOEXEC));
    const FileDescriptor second(::open(other.c_str(), O_RDONLY | O_CLOEXEC));
    if (fs::file_size(one) != fs::file_size(other)) return false;
    Bytes a(extentBytes), b(extentBytes);
    for (const auto* walked : {&first, &second}) {
        for (off_t at = 0; (at = ::lseek(walked->get(), at, SEEK_DATA)) >= 0;) {
            const auto countA = ::pread(first.get(), a.data(), a.size(), at);
            const auto countB = ::pread(second.get(), b.data(), b.size(), at);
            if (countA != countB || !std::equal(a.begin(), a.begin() + countA, b.begin())) return false;
            at += countA;
        }
    }
    return true;
}

bool tell(const char* what, double ours, double peers) {
    fmt::print("  {:<8} {:>8.2f} s   bsdtar {:>8.2f} s   {:.1f} times as fast\n", what, ours, peers,
               peers / ours);
    std::fflush(stdout);
    return ours <= peers;
}

bool compare(const char* name, const Path& below, std::uint64_t diskBytes) {
    const Scratch scratch(below);
    LinuxHostSystem host;
    LinuxFileManager files(scratch / "Trash");
    const auto source = makeBundle(scratch / "machine", diskBytes, host);
    fmt::print("{}: {} GB with {} GB of data\n", name, diskBytes / gigabyte, dataBytes / gigabyte);

    ArchiveControl control;
    const auto archive = scratch / "ours.zip", peerArchive = scratch / "peer.zip";
    const double pack = seconds([&] { packBackup({source, archive, {}, {}, {}}, control); });
    const double peerPack = seconds([&] {
        runPeer(bsdtar() + " -c --format zip -f '" + peerArchive.string() + "' -C '" + scratch.text() +
                "' machine && sync '" + peerArchive.string() + "'");
    });
    bool isGood = tell("pack", pack, peerPack);
    fmt::print("  archive  {:>8.1f} MB  bsdtar {:>8.1f} MB\n",
               static_cast<double>(fs::file_size(archive)) / 1e6,
               static_cast<double>(fs::file_size(peerArchive)) / 1e6);

    const VMBackupInstallOrder order{scratch / "staging", scratch / "restored", files, host, {}, {}};
    const double unpack = seconds([&] {
        const VMBackupArchive opened(archive);
        unpackBackup(opened, order, control);
        installBackup(opened, order, control);
    });
    // The peer reads this very archive.
    fs::create_directories(scratch / "peer");
    const double peerUnpack = seconds([&] {
        runPeer(bsdtar() + " -x -S -f '" + archive.string() + "' -C '" + (scratch / "peer").string() + "'");
    });
    isGood &= tell("restore", unpack, peerUnpack);
    const auto restored = VMBundle(scratch / "restored").rawDisk();
    fmt::print("  on disk  {:>8.1f} MB  source {:>8.1f} MB  bsdtar {:>8.1f} MB\n",
               static_cast<double>(allocatedBytes(restored)) / 1e6,
               static_cast<double>(allocatedBytes(source.rawDisk())) / 1e6,
               static_cast<double>(allocatedBytes(scratch / "peer" / "machine" / "disk.img")) / 1e6);
    const bool isWhole = isSame(restored, source.rawDisk()) &&
                         isSame(scratch / "peer" / "machine" / "disk.img", source.rawDisk()) &&
                         allocatedBytes(restored) <= allocatedBytes(source.rawDisk()) + (1 << 20);
    if (!isWhole) fmt::print("  the restored disk is not the source's\n");
    return isGood && isWhole;
}

}  // namespace
}  // namespace dorvane

int main(int count, char** arguments) {
    using namespace dorvane;
    installLogSink([](const LogLine&) {});
    const auto below = count > 1 ? Path(arguments[1]) : fs::temp_directory_path();
    const auto gigabytes = count > 2 ? std::stoull(arguments[2]) : defaultSparseGigabytes;
    const bool full = compare("full disk", below, dataBytes);
    const bool sparse = compare("sparse disk", below, gigabytes * gigabyte);
    return full && sparse ? 0 : 1;
}
