// SPDX-License-Identifier: Apache-2.0
#include "app/Service.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "app/ControlServer.h"
#include "app/InstanceLock.h"
#include "app/ServiceCommands.h"
#include "app/ServiceDefaults.h"
#include "app/Version.h"
#include "base/Localized.h"
#include "core/PersistenceStore.h"
#include "core/RecentLog.h"
#include "core/application/AppState.h"
#include "platform/linux/LinuxApplicationDirectories.h"
#include "platform/linux/LinuxDefaultsStore.h"
#include "platform/linux/LinuxFileManager.h"
#include "platform/linux/LinuxHostSystem.h"
#include "platform/linux/LinuxKeychain.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxQEMUHostAdapter.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/SignalWatcher.h"
#include "runtime/StandardErrorLog.h"

namespace dorvane {
namespace {

/// A terminal that closes ends the service too, unless it was started to outlive it.
std::vector<int> endingSignals() {
    std::vector<int> signals{SIGTERM, SIGINT};
    struct sigaction present {};
    ::sigaction(SIGHUP, nullptr, &present);
    if (present.sa_handler != SIG_IGN) signals.push_back(SIGHUP);
    return signals;
}

constexpr int failureStatus = 1;
/// What is in progress when the service ends is cancelled, and may take this long to clear up behind itself.
constexpr auto withdrawalTimeout = seconds(5);
constexpr auto withdrawalPollInterval = milliseconds(20);
constexpr auto controlSocketName = "control.sock";

/// What this run was told on its command line, over what the user has stored.
std::map<std::string, JSON> overridesFor(const ServeRequest& request, const DefaultsStore& stored) {
    std::map<std::string, JSON> overrides;
    // A headless service is there for agents: the server runs unless the user has turned it off.
    if (stored.value(defaultsKey::mcpServerEnabled).is_null())
        overrides[defaultsKey::mcpServerEnabled] = true;
    if (request.port) overrides[defaultsKey::mcpServerPort] = *request.port;
    if (request.storage) overrides[defaultsKey::vmStoragePath] = request.storage->string();
    return overrides;
}

/// Beside this program in an installation, else the packaged runtime that the project's script made.
std::vector<Path> qemuPackageRoots(const ApplicationDirectories& directories) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    std::vector<Path> roots;
    if (!error) roots.push_back(program.parent_path().parent_path() / "lib" / "dorvane");
    roots.push_back(directories.caches / "qemu-runtime");
    return roots;
}

std::unique_ptr<ModelContext> openLibrary(const ApplicationDirectories& directories) {
    try {
        return PersistenceStore::makeModelContainer(directories.applicationSupport);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("Failed to initialize persistent store: ") + error.what());
    }
}

void makePrivateDirectory(const Path& directory) {
    std::filesystem::create_directories(directory);
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
}

/// Lets a log hear every line for as long as it lives; standard error gets them all the same.
class LogTap {
  public:
    explicit LogTap(RecentLog& log)
        : previous_(installLogSink([&log](const LogLine& line) {
              log.note(line);
              writeToStandardError(line);
          })) {}
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;
    ~LogTap() { installLogSink(previous_); }

  private:
    LogSink previous_;
};

/// The host's half of the program, in the order in which its parts need each other.
class Service {
  public:
    explicit Service(const ServeRequest& request)
        : environment_(currentEnvironment()),
          directories_(linuxApplicationDirectories(environment_)),
          lock_(directories_.applicationSupport / PersistenceStore::directoryName / "instance.lock"),
          modelContext_(openLibrary(directories_)),
          storedDefaults_(directories_.configuration / "settings.json"),
          defaults_(storedDefaults_, overridesFor(request, storedDefaults_)),
          keychain_(environment_.contains("DBUS_SESSION_BUS_ADDRESS"),
                    directories_.applicationSupport / "secrets.json"),
          files_(linuxHomeTrash(environment_)),
          host_{process_.runtime(),
                defaults_,
                keychain_,
                directories_,
                files_,
                processes_,
                system_,
                hostAdapter_,
                qemuPackageRoots(directories_),
                environment_,
                version,
                &recentLog_},
          storage_(request.storage) {}

    int run() {
        makePrivateDirectory(directories_.runtime);
        if (storage_) std::filesystem::create_directories(*storage_);
        app_ = std::make_unique<AppState>(host_, *modelContext_);
        const SignalWatcher signals(process_.runtime().main.executor(), endingSignals(),
                                    [this](int) { quit(); });
        starting_ = spawn(process_.runtime().main.executor(), start(), "start sequence");
        process_.run();
        return status_;
    }

  private:
    Task<void> start() {
        app_->refreshBackendAvailability(true);
        // Agents and commands may come in while the list is still being read.
        app_->configureMCPServer();
        try {
            controlServer_ =
                std::make_unique<ControlServer>(process_.runtime(), directories_.runtime / controlSocketName,
                                                makeServiceCommands(*app_, host_));
        } catch (const std::exception& error) {
            std::cerr << "Could not listen for commands: " << error.what() << '\n';
            status_ = failureStatus;
            quit();
            co_return;
        }
        logger_.info("Dorvane %{public}s is serving", version);
        co_await app_->runStartSequence();
    }

    /// The road of "Stop VMs and Quit": there is nobody to ask. A second signal doesn't shorten it.
    void quit() {
        if (quitting_) return;
        quitting_ = spawn(process_.runtime().main.executor(), stop(), "quit");
    }

    Task<void> stop() {
        const auto flow = app_->quitFlow();
        flow.shouldTerminate([this](const QuitQuestion& question) {
            logger_.info("%{public}s", question.text);
            return true;
        });
        closeDoors();
        // Whatever the reply: a machine may be on its way up without running yet.
        co_await flow.stopAllVMs();
        closing_ = spawn(process_.runtime().main.executor(), app_->shutDown(), "shut down");
        const auto isIdle = [this] {
            return requests_.expired() && starting_.isFinished() && closing_.isFinished();
        };
        const bool hasEnded =
            co_await pollUntil(process_.runtime().clock, withdrawalTimeout, withdrawalPollInterval, isIdle);
        if (!hasEnded) abandonWork();
        logger_.info("Dorvane has stopped");
        process_.stop();
    }

    /// Nothing new begins from here on, neither by request nor by itself.
    void closeDoors() {
        if (controlServer_) requests_ = controlServer_->work();
        controlServer_.reset();
        app_->mcpServerService().stop();
        starting_.cancel();
    }

    /// A copy of a disk is deaf to cancellation and would find its objects gone. Its half result is discarded
    /// at the next start. Every line of the log is out already.
    [[noreturn]] void abandonWork() {
        logger_.error("Dorvane has stopped in the middle of an operation, whose result is discarded");
        ::_exit(status_);
    }

    Environment environment_;
    ApplicationDirectories directories_;
    InstanceLock lock_;
    ProcessRuntime process_;
    RecentLog recentLog_{process_.runtime().clock};
    LogTap logTap_{recentLog_};
    std::unique_ptr<ModelContext> modelContext_;
    LinuxDefaultsStore storedDefaults_;
    ServiceDefaults defaults_;
    LinuxKeychain keychain_;
    LinuxFileManager files_;
    LinuxProcesses processes_;
    LinuxHostSystem system_;
    LinuxQEMUHostAdapter hostAdapter_{LinuxQEMUHostFacts::probe(environment_)};
    HostServices host_;
    Logger logger_{"Service"};
    std::optional<Path> storage_;
    std::unique_ptr<AppState> app_;
    std::unique_ptr<ControlServer> controlServer_;
    std::weak_ptr<void> requests_;
    TaskHandle starting_, closing_, quitting_;
    int status_ = 0;
};

}  // namespace

ControlMethods makeServiceCommands(AppState& app, const HostServices& host) {
    ControlMethods methods;
    addMachineCommands(methods, app);
    addToolCommands(methods, app);
    addSnapshotCommands(methods, app);
    addBackupCommands(methods, app);
    addSandboxCommands(methods, app);
    addLinkCommand(methods, app);
    addSettingsCommands(methods, app);
    addMCPCommands(methods, app);
    addDemoCommand(methods, app, host);
    methods["service.status"].perform = [&app](const JSON&, const ProgressReporter&) {
        return [](AppState& state) -> Task<JSON> {
            JSON shown{{"version", version}, {"storage", state.settingsService().storagePath().string()}};
            auto& server = state.mcpServerService();
            shown["mcp"] = server.isRunning()
                               ? server.endpointURLString()
                               : server.lastErrorMessage().value_or(localized("The MCP server is off."));
            shown["running"] = state.engine().runningVMIDs().size();
            co_return shown;
        }(app);
    };
    return methods;
}

Path controlSocketPath() {
    return linuxApplicationDirectories(currentEnvironment()).runtime / controlSocketName;
}

int runService(const ServeRequest& request) {
    if (request.verbose) setLogLevel(LogLevel::debug);
    Service service(request);
    return service.run();
}

}  // namespace dorvane
