// SPDX-License-Identifier: Apache-2.0
#include "qemu/TPMEmulator.h"

#include "base/Text.h"
#include "core/DorvaneError.h"
#include "qemu/ChildEnding.h"
#include "qemu/UnixSocketPeer.h"
#include "runtime/Timeout.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

constexpr auto socketTimeout = seconds(10.0);
constexpr auto socketInterval = milliseconds(50);
constexpr auto setUpTimeout = seconds(10.0);
constexpr auto terminationGrace = seconds(5.0);

/// For swtpm 0.7 the wish to end with the connection is an option of its own.
ProcessCommand emulatorCommand(const Path& executable, const Path& stateDirectory, const Path& socket,
                               bool isOld) {
    ProcessCommand command{.executable = executable,
                           .arguments = {"socket", "--tpm2", "--tpmstate", "dir=" + stateDirectory.string(),
                                         "--ctrl", "type=unixio,path=" + socket.string()}};
    if (isOld)
        command.arguments.emplace_back("--terminate");
    else
        command.arguments.back() += ",terminate";
    return command;
}

ProcessCommand setUpCommand(const Path& tool, const Path& executable, const Path& stateDirectory) {
    return {.executable = tool,
            .arguments = {"--tpm2", "--tpmstate", stateDirectory.string(), "--config", "/dev/null",
                          "--pcr-banks", "sha256", "--tpm", executable.string() + " socket"}};
}

/// swtpm ends an option's value at a comma and knows no escape: a link beside the socket stands in.
Path withoutComma(const Path& directory, const Path& socket) {
    if (directory.string().find(',') == std::string::npos) return directory;
    auto link = socket.parent_path() / "tpm";
    removeQuietly(link);
    fs::create_directory_symlink(directory, link);
    return link;
}

}  // namespace

Task<void> TPMEmulator::clearStale(Path socket) {
    const UnixSocketPeer peer(processes_, runtime_.clock);
    const auto probe = peer.probe(socket.string());
    if (probe.kind == UnixSocketPeer::Probe::Kind::listening) {
        logger_.info("发现上次会话遗留的 swtpm(pid %{public}d),先把它停掉", probe.pid);
        co_await peer.terminate(probe.pid, "swtpm", terminationGrace);
    }
    std::error_code ignored;
    fs::remove(socket, ignored);
}

/// A new TPM has every PCR bank on; the guest's firmware then hashes all it measures several times, which
/// costs seconds where the processor is emulated. One bank is enough for every guest.
Task<void> TPMEmulator::prepareState(Path executable, Path stateDirectory, Path name) {
    const bool isNew = fs::create_directories(stateDirectory);
    const auto tool = executable.parent_path() / "swtpm_setup";
    if (!isNew || !fs::exists(tool)) co_return;
    std::string failure;
    try {
        auto run = runProcess(runtime_, setUpCommand(tool, executable, name));
        const auto output = co_await withTimeout(runtime_.clock, setUpTimeout, std::move(run));
        if (!output)
            failure = "no answer in time";
        else if (!output->status.isSuccess())
            failure = trimmed(repairedUTF8(output->standardError));
        else
            co_return;
    } catch (const std::exception& error) {
        if (isCancellation(std::current_exception())) throw;
        failure = error.what();
    }
    logger_.error("The TPM's PCR banks could not be set up: %{public}s", failure);
    fs::remove_all(stateDirectory);
    fs::create_directories(stateDirectory);
}

Task<void> TPMEmulator::start(Path executable, Path stateDirectory, Path socket) {
    co_await clearStale(socket);
    const auto name = withoutComma(stateDirectory, socket);
    co_await prepareState(executable, stateDirectory, name);
    for (int attempt = 0; attempt < 2 && !isTerminated_; ++attempt) {
        process_ = ChildProcess::start(emulatorCommand(executable, name, socket, attempt > 0));
        // Also ends early when the emulator has gone: the socket can't come any more.
        std::function<bool()> isDecided = [this, socket] {
            return fs::exists(socket) || !process_ || !process_->isRunning();
        };
        co_await pollUntil(runtime_.clock, socketTimeout, socketInterval, std::move(isDecided));
        if (fs::exists(socket) && process_) co_return;
        if (process_ && process_->isRunning()) break;
    }
    terminate();
    throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                       localized("The virtual TPM did not start. Try starting the VM again."));
}

void TPMEmulator::terminate() {
    isTerminated_ = true;
    if (const auto process = std::exchange(process_, nullptr))
        terminateThenKill(runtime_, process, terminationGrace);
}

}  // namespace dorvane
