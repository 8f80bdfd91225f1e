// SPDX-License-Identifier: Apache-2.0
// A QMP server on a real Unix socket, run by the test's own thread.
#pragma once

#include <functional>
#include <optional>

#include "base/JSON.h"
#include "qemu/QMPLineBuffer.h"
#include "runtime/Files.h"
#include "runtime/ReadSource.h"
#include "runtime/Runtime.h"

namespace dorvane::test {

/// Greets, keeps what it is told, and answers as `answer` says. Takes one client after the other.
class FakeQMPServer {
  public:
    /// The raw text to send for a command; absent: no answer.
    using Answer = std::function<std::optional<std::string>(const JSON& command)>;

    FakeQMPServer(const Runtime& runtime, const Path& socket);

    static std::string result(const JSON& command, const std::string& payload);
    static std::optional<std::string> agree(const JSON& command);

    void send(const std::string& text);
    void hangUp();
    bool sawEndOfStream() const;

    Answer answer = agree;
    std::vector<JSON> commands;
    std::vector<FileDescriptor> descriptors;

  private:
    void acceptClient();
    void readClient();

    SerialQueue queue_;
    ReadSource listener_;
    std::unique_ptr<ReadSource> client_;
    QMPLineBuffer buffer_;
    bool sawEndOfStream_ = false;
};

}  // namespace dorvane::test
