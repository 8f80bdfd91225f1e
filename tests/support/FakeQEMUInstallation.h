// SPDX-License-Identifier: Apache-2.0
// A folder that looks like the QEMU runtime, with the scripted stand-in behind every program.
#pragma once

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>

#include "runtime/Files.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {

class FakeQEMUInstallation {
  public:
    FakeQEMUInstallation() {
        std::filesystem::create_directories(helpers());
        std::filesystem::create_directories(root() / "Resources" / "qemu");
        for (const auto* name : {"qemu-system-aarch64", "qemu-img", "swtpm"}) add(name);
        for (const auto* name : {"secboot-code.fd", "secboot-vars.fd"})
            std::ofstream(root() / "Resources" / "qemu" / name) << "firmware";
    }

    Path root() const { return directory_.path(); }
    Path helpers() const { return root() / "Helpers"; }
    Path emulator() const { return helpers() / "qemu-system-aarch64"; }
    void add(const std::string& program) const {
        std::filesystem::create_symlink(Path(DORVANE_TEST_HELPER).parent_path() / "dorvane_fake_qemu",
                                        helpers() / program);
    }
    /// How the program misbehaves from its next start on; see the stand-in for the words.
    void script(const std::string& program, const std::vector<std::string>& words) const {
        std::ofstream file(helpers() / (program + ".script"));
        for (const auto& word : words) file << word << '\n';
    }

    std::string log() const {
        std::ifstream file(helpers() / "log");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// How often `part` stands in the log.
    int count(const std::string& part) const {
        const auto text = log();
        int found = 0;
        for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
        return found;
    }
    /// Every program that was started here and still runs.
    std::set<int> survivors() const {
        std::set<int> alive;
        std::istringstream lines(log());
        for (std::string program, word, rest; lines >> program >> word; std::getline(lines, rest))
            if (word.starts_with("pid=") && ::kill(std::stoi(word.substr(4)), 0) == 0)
                alive.insert(std::stoi(word.substr(4)));
        return alive;
    }

  private:
    TemporaryDirectory directory_;
};

}  // namespace dorvane::test
