// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxHostSystem.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <pwd.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <thread>

#include "base/RandomBytes.h"
#include "runtime/Files.h"

namespace dorvane {
namespace {

constexpr std::size_t macMachineIdentifierBytes = 32;
constexpr std::size_t genericMachineIdentifierBytes = 16;

bool isWireless(const std::string& interface) {
    std::error_code ignored;
    const auto folder = Path("/sys/class/net") / interface;
    return std::filesystem::exists(folder / "wireless", ignored) ||
           std::filesystem::exists(folder / "phy80211", ignored);
}

bool isEthernet(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_PACKET) return false;
    if ((entry.ifa_flags & IFF_LOOPBACK) != 0) return false;
    return reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr)->sll_hatype == ARPHRD_ETHER;
}

}  // namespace

OperatingSystemVersion LinuxHostSystem::version() const {
    struct utsname info {};
    OperatingSystemVersion result;
    if (::uname(&info) == 0)
        std::sscanf(info.release, "%d.%d.%d", &result.major, &result.minor, &result.patch);
    return result;
}

int LinuxHostSystem::coreCount() const {
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) return CPU_COUNT(&allowed);
    // More processors than the set has room for.
    return static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
}

std::uint64_t LinuxHostSystem::memoryBytes() const {
    struct sysinfo info {};
    return ::sysinfo(&info) == 0 ? std::uint64_t{info.totalram} * info.mem_unit : 0;
}

std::string LinuxHostSystem::userName() const {
    struct passwd entry {};
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(::getuid());
}

std::vector<NetworkInterface> LinuxHostSystem::networkInterfaces() const {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    std::set<std::string> names;
    for (const auto* entry = list; entry != nullptr; entry = entry->ifa_next)
        if (isEthernet(*entry)) names.insert(entry->ifa_name);
    std::vector<NetworkInterface> result;
    for (const auto& name : names) result.push_back({name, isWireless(name)});
    return result;
}

std::string LinuxHostSystem::randomMACAddress() const {
    auto bytes = randomBytes(6);
    bytes[0] = static_cast<std::uint8_t>((bytes[0] | 0x02) & 0xFE);
    return fmt::format("{:02x}", fmt::join(bytes, ":"));
}

Bytes LinuxHostSystem::newMacMachineIdentifier() const { return randomBytes(macMachineIdentifierBytes); }
Bytes LinuxHostSystem::newGenericMachineIdentifier() const {
    return randomBytes(genericMachineIdentifierBytes);
}

}  // namespace dorvane
