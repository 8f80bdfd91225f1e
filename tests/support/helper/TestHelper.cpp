// SPDX-License-Identifier: Apache-2.0
// The child program of the process tests. Its first argument says what it does.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const std::string value = argc > 2 ? argv[2] : "";
    if (verb == "cat") {
        std::cout << std::cin.rdbuf();
    } else if (verb == "environment") {
        const char* found = std::getenv(value.c_str());
        std::cout << (found != nullptr ? found : "(none)");
    } else if (verb == "descriptors") {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            std::cout << entry.path().filename().string() << '\n';
    } else if (verb == "flood") {
        for (auto rest = std::atol(value.c_str()); rest > 0; rest -= 100)
            std::cerr << std::string(99, 'x') + '\n';
    } else if (verb == "sleep") {
        std::this_thread::sleep_for(std::chrono::seconds(60));
    } else {
        return 64;
    }
    return 0;
}
