// SPDX-License-Identifier: Apache-2.0
// The child program of the process tests. Its first argument says what it does.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

namespace {

int listDescriptors() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        std::cout << entry.path().filename().string() << '\n';
    return 0;
}

int flood(std::size_t count) {
    const std::string line(99, 'x');
    for (std::size_t written = 0; written < count; written += 100) std::cerr << line << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const std::string value = argc > 2 ? argv[2] : "";
    if (verb == "exit") return std::atoi(value.c_str());
    if (verb == "echo") {
        std::cout << value;
        std::cerr << "error:" << value;
        return 0;
    }
    if (verb == "cat") {
        std::cout << std::cin.rdbuf();
        return 0;
    }
    if (verb == "environment") {
        const char* found = std::getenv(value.c_str());
        std::cout << (found != nullptr ? found : "(none)");
        return 0;
    }
    if (verb == "descriptors") return listDescriptors();
    if (verb == "flood") return flood(std::strtoul(value.c_str(), nullptr, 10));
    if (verb == "abort") {
        std::signal(SIGABRT, SIG_DFL);
        ::raise(SIGABRT);
    }
    if (verb == "stubborn") {
        std::signal(SIGTERM, SIG_IGN);
        std::cout << "ready" << std::endl;
        std::this_thread::sleep_for(std::chrono::seconds(60));
    }
    if (verb == "sleep") std::this_thread::sleep_for(std::chrono::seconds(60));
    return 64;
}
