// SPDX-License-Identifier: Apache-2.0
// Measures how long a refresh of the library takes over 1,000 and 10,000 machines, with the real store, the
// real settings file and real bundles: cold (every machine is new to the library) and warm (nothing has
// changed since).
//
//   dorvane_bench_library [folder]      the bundles are made below it, and removed again
//
// Ends with 1 when a warm refresh takes longer than its limit.
#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "core/EngineRouter.h"
#include "core/PersistenceStore.h"
#include "core/VMService.h"
#include "platform/linux/LinuxDefaultsStore.h"
#include "platform/linux/LinuxFileManager.h"
#include "platform/linux/LinuxHostSystem.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/TaskHandle.h"

namespace dorvane {
namespace {

constexpr auto warmRefreshes = 7;

struct Size {
    int bundles;
    double warmLimitSeconds;
};
constexpr std::array sizes{Size{1000, 0.15}, Size{10000, 1.5}};

struct Result {
    double cold = 0;
    double warm = 0;
};

/// A folder of the program's own, removed with everything in it.
class Scratch {
  public:
    explicit Scratch(const Path& below) : path_(below / ("dorvane-bench-" + UUID::random().shortText())) {
        std::filesystem::create_directories(path_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const Path& path() const { return path_; }

  private:
    Path path_;
};

void makeBundles(const Path& storage, int count, const HostSystem& host) {
    for (int number = 0; number < count; ++number) {
        const auto bundle =
            VMBundle::create(storage / fmt::format("Machine {}", number), std::uint64_t{64} << 30);
        DorvaneVMConfig config;
        config.os = VMOSType::linux;
        config.cpuCount = 4;
        config.memoryBytes = std::uint64_t{4096} << 20;
        config.diskSizeBytes = std::uint64_t{64} << 30;
        config.macAddress = host.randomMACAddress();
        config.display = {1440, 900, VMDisplayConfig::standardPixelsPerInch};
        config.linuxPlatform = LinuxPlatformIdentity{host.newGenericMachineIdentifier()};
        config.linuxClipboard = true;
        // Plain writes: making the bundles is not what is measured.
        const auto text = prettyJSON(config.encoded());
        std::FILE* file = std::fopen(bundle.configFile().c_str(), "w");
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
    }
}

Task<double> timeRefresh(VMService& service, Clock& clock) {
    const auto start = clock.now();
    co_await service.refreshVMList();
    co_return std::chrono::duration<double>(clock.now() - start).count();
}

Task<void> measure(VMService& service, Clock& clock, Result& result, std::function<void()> done) {
    result.cold = co_await timeRefresh(service, clock);
    std::vector<double> times;
    for (int round = 0; round < warmRefreshes; ++round) times.push_back(co_await timeRefresh(service, clock));
    std::nth_element(times.begin(), times.begin() + warmRefreshes / 2, times.end());
    result.warm = times[warmRefreshes / 2];
    done();
}

Result measure(const Path& below, int bundles) {
    const Scratch scratch(below);
    const auto storage = scratch.path() / "VMs";
    ProcessRuntime process;
    LinuxHostSystem host;
    LinuxDefaultsStore defaults(scratch.path() / "settings.json");
    const ApplicationDirectories directories;
    SettingsService settings(defaults, directories, host.userName());
    settings.setStoragePath(storage);
    EngineRouter router(process.runtime(), nullptr, nullptr);
    VMOperationGate gate;
    LongOperationRegistry operations;
    LinuxFileManager files(scratch.path() / "Trash");
    FileManagerDirectoryDisposer disposer(files);
    SecurityScopedBookmarkStore bookmarks;
    const auto context = PersistenceStore::makeModelContainer(scratch.path());
    makeBundles(storage, bundles, host);

    VMServiceCollaborators with{process.runtime(), router,   settings, gate, operations, files, host,
                                disposer,          bookmarks};
    with.modelContext = context.get();
    VMService service(std::move(with));
    Result result;
    const auto task =
        spawn(process.runtime().main.executor(),
              measure(service, process.runtime().clock, result, [&] { process.stop(); }), "measure");
    process.run();
    if (service.vms().size() != static_cast<std::size_t>(bundles))
        throw std::runtime_error("machines are missing");
    return result;
}

int run(const Path& below) {
    installLogSink([](const LogLine&) {});
    std::vector<Result> results;
    bool isWithinLimits = true;
    for (const auto& size : sizes) {
        const auto result = measure(below, size.bundles);
        fmt::print("{:>6} machines: cold {:.3f} s, warm {:.4f} s (limit {} s, {:.1f} us a machine)\n",
                   size.bundles, result.cold, result.warm, size.warmLimitSeconds,
                   result.warm * 1e6 / size.bundles);
        isWithinLimits &= result.warm <= size.warmLimitSeconds;
        results.push_back(result);
    }
    fmt::print("ten times the machines take {:.1f} times as long\n",
               results.back().warm / results.front().warm);
    return isWithinLimits ? 0 : 1;
}

}  // namespace
}  // namespace dorvane

int main(int count, char** arguments) {
    return dorvane::run(count > 1 ? std::filesystem::path(arguments[1])
                                  : std::filesystem::temp_directory_path());
}
