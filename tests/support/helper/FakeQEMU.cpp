// SPDX-License-Identifier: Apache-2.0
// A scripted stand-in for the programs that the QEMU engine starts. Its own name says which one it plays;
// words in the file "<name>.script" beside it say how it misbehaves; what it is told is appended to the file
// "log" there.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

fs::path program;
std::vector<std::string> script;
std::vector<std::string> arguments;

bool has(const std::string& word) { return std::find(script.begin(), script.end(), word) != script.end(); }

std::string valueOf(const std::string& key) {
    for (const auto& word : script)
        if (word.starts_with(key + "=")) return word.substr(key.size() + 1);
    return {};
}

void log(const std::string& line) {
    std::ofstream(program.parent_path() / "log", std::ios::app)
        << program.filename().string() + " " + line + "\n";
}

[[noreturn]] void sleepForever() {
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(60));
}

int listenAt(const std::string& path) {
    ::unlink(path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd, 4) != 0)
        std::exit(70);
    return fd;
}

/// What stands between `prefix` and the next `end`.
std::string textBehind(const std::string& text, const std::string& prefix, char end) {
    const auto at = text.find(prefix);
    if (at == std::string::npos) return {};
    const auto start = at + prefix.size();
    return text.substr(start, text.find(end, start) - start);
}

/// In the first argument that holds the prefix.
std::string pathIn(const std::string& prefix) {
    for (const auto& argument : arguments)
        if (argument.find(prefix) != std::string::npos) return textBehind(argument, prefix, ',');
    return {};
}

std::string member(const std::string& line, const std::string& key) {
    return textBehind(line, "\"" + key + "\":\"", '"');
}

struct Monitor {
    int fd;
    void say(const std::string& line) const { (void)!::write(fd, (line + "\r\n").data(), line.size() + 2); }
    void event(const std::string& name, const std::string& data = "{}") const {
        say(R"({"event":")" + name + R"(","data":)" + data + "}");
    }
    void answer(const std::string& id, const std::string& value) const {
        say(R"({"return":)" + value + R"(,"id":")" + id + "\"}");
    }
};

[[noreturn]] void leave(int status) {
    ::unlink(pathIn("unix:").c_str());
    std::exit(status);
}

std::string migrationStatus() {
    static int count = 0;
    const auto outcome = valueOf("migrate");
    if (outcome == "dies") leave(1);
    if (++count < 2 || outcome == "never") return R"({"status":"active"})";
    if (outcome == "old")
        return R"({"status":"failed","error-desc":"State blocked by non-migratable device 'nvme'"})";
    if (outcome == "fails") return R"({"status":"failed","error-desc":"bad stream"})";
    return R"({"status":")" + (outcome.empty() ? "completed" : outcome) + "\"}";
}

void shutDown(const Monitor& monitor, bool guest) {
    monitor.event("SHUTDOWN", guest ? R"({"guest":true})" : R"({"guest":false})");
    leave(0);
}

/// Follows the system disk's top layer; "switchesLate" makes QEMU switch and complain all the same.
std::string topNode(const std::string& line) {
    static std::string node = "sysroot";
    const bool isSwitch = member(line, "execute") == "blockdev-snapshot";
    if (isSwitch && (has("switchesLate") || !has("refuse=blockdev-snapshot"))) node = member(line, "overlay");
    return R"([{"device":"cd"},{"device":"sysdisk","inserted":{"node-name":")" + node + R"("}}])";
}

void obey(const Monitor& monitor, const std::string& line) {
    const auto command = member(line, "execute");
    const auto id = member(line, "id");
    const auto disks = topNode(line);
    static std::map<std::string, int> times;
    if (has("refuse=" + command) || (++times[command] == 2 && has("refuseSecond=" + command))) {
        monitor.say(R"({"error":{"class":"GenericError","desc":"no )" + command + R"("},"id":")" + id +
                    "\"}");
        return;
    }
    monitor.answer(id, command == "query-migrate" ? migrationStatus()
                       : command == "query-block" ? disks
                                                  : "{}");
    if (command == "stop") monitor.event("STOP");
    if (command == "cont") monitor.event("RESUME");
    if (command == "quit" && !has("stubborn")) shutDown(monitor, false);
    if (command == "system_powerdown" && !has("deaf") && !has("stubborn")) shutDown(monitor, true);
    if (command != "qmp_capabilities") return;
    if (has("hangup")) {
        ::shutdown(monitor.fd, SHUT_RDWR);
        sleepForever();
    }
    if (has("panics")) monitor.event("GUEST_PANICKED");
    if (has("powersOff")) shutDown(monitor, true);
    if (has("resets")) shutDown(monitor, false);
    if (!valueOf("thenExit").empty()) leave(std::atoi(valueOf("thenExit").c_str()));
}

void serve(int fd) {
    const Monitor monitor{fd};
    if (has("garbage")) monitor.say("\xff\xfe not JSON {{{");
    monitor.say(R"({"QMP":{"version":{"qemu":{"major":11,"minor":1,"micro":3}},"capabilities":[]}})");
    if (has("mute")) sleepForever();
    std::string buffer;
    char chunk[4096];
    for (ssize_t count = 0; (count = ::read(fd, chunk, sizeof(chunk))) > 0;) {
        buffer.append(chunk, static_cast<std::size_t>(count));
        for (auto end = buffer.find('\n'); end != std::string::npos; end = buffer.find('\n')) {
            const auto line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            log(line);
            obey(monitor, line);
        }
    }
}

int playEmulator() {
    if (has("stubborn"))
        for (const int number : {SIGTERM, SIGPIPE}) std::signal(number, SIG_IGN);
    if (const auto text = valueOf("stderr"); !text.empty()) std::cerr << text << std::endl;
    for (auto rest = std::atol(valueOf("flood").c_str()); rest > 0; rest -= 100)
        std::cerr << std::string(99, 'x') + '\n';
    if (has("orphan") && ::fork() == 0) {
        std::this_thread::sleep_for(std::chrono::seconds(2));
        ::_exit(0);
    }
    if (const auto number = valueOf("signal"); !number.empty()) ::raise(std::atoi(number.c_str()));
    if (const auto status = valueOf("exit"); !status.empty()) return std::atoi(status.c_str());
    if (has("noSocket")) sleepForever();
    const int listener = listenAt(pathIn("unix:"));
    for (;;) {
        const int fd = ::accept(listener, nullptr, nullptr);
        if (fd < 0) return 71;
        serve(fd);
        ::close(fd);
    }
}

int playTPM() {
    const bool isUnknown = has("old") && arguments.back().ends_with(",terminate");
    if (has("exit=1") || isUnknown) return 1;
    if (!has("noSocket")) listenAt(pathIn("path="));
    sleepForever();
}

/// Like qemu-img: the last argument is the file to make.
int playTool() {
    std::ofstream(arguments.back()) << "image";
    return has("fails") ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    program = argv[0];
    arguments.assign(argv + 1, argv + argc);
    std::string word;
    for (std::ifstream file(program.string() + ".script"); std::getline(file, word);) script.push_back(word);
    std::string line = "pid=" + std::to_string(::getpid());
    for (const auto& argument : arguments) line += " " + argument;
    log(line);
    const auto name = program.filename().string();
    if (name == "swtpm") return playTPM();
    if (name == "qemu-img") return playTool();
    if (name == "swtpm_setup") return has("fails") ? 1 : 0;
    return playEmulator();
}
