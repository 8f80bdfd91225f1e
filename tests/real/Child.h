// SPDX-License-Identifier: Apache-2.0
// A program that a test keeps beside it.
#pragma once

#include <unistd.h>

#include <csignal>

#include "runtime/ChildProcess.h"

namespace dorvane::test {

/// Ended by its own number with the object.
class Child {
  public:
    explicit Child(const ProcessCommand& command, int lastSignal = SIGTERM)
        : process_(ChildProcess::start(command)), lastSignal_(lastSignal) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { end(); }

    void end() {
        process_->signal(lastSignal_);
        process_->waitBlocking();
    }
    ChildProcess& process() { return *process_; }

  private:
    std::shared_ptr<ChildProcess> process_;
    int lastSignal_;
};

/// Up to the line's end, or to that of all that comes.
inline std::string readLine(const FileDescriptor& from) {
    std::string line;
    for (char c = 0; ::read(from.get(), &c, 1) == 1 && c != '\n';) line += c;
    return line;
}

}  // namespace dorvane::test
