// SPDX-License-Identifier: Apache-2.0
#include "mcp/ServerChild.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <sstream>

#include "runtime/Spawn.h"

namespace dorvane::bench {
namespace {

struct Pipe {
    FileDescriptor reading, writing;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::string readLine(int fd) {
    std::string line;
    for (char c = 0; ::read(fd, &c, 1) == 1 && c != '\n';) line.push_back(c);
    return line;
}

}  // namespace

ServerChild::ServerChild(const std::vector<std::string>& command) {
    auto input = makePipe(), output = makePipe();
    ProcessCommand started;
    started.executable = command.front();
    started.arguments.assign(command.begin() + 1, command.end());
    pid_ = spawnProgram(started, {input.reading.get(), output.writing.get(), STDERR_FILENO});
    input_ = std::move(input.writing);
    output.writing.reset();
    std::string ready;
    std::istringstream line(readLine(output.reading.get()));
    if (!(line >> ready >> port_ >> token_) || ready != "ready")
        throw std::runtime_error(command.back() + " did not get ready");
}

ServerChild::~ServerChild() {
    input_.reset();
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
}

double ServerChild::cpuSeconds() const {
    clockid_t clock = 0;
    timespec time{};
    if (::clock_getcpuclockid(pid_, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        throw std::runtime_error("the server is gone");
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

}  // namespace dorvane::bench
