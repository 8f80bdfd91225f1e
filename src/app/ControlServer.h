// SPDX-License-Identifier: Apache-2.0
// The service's side of the control socket.
#pragma once

#include <functional>
#include <map>
#include <memory>

#include "app/ControlProtocol.h"
#include "runtime/AsyncStream.h"
#include "runtime/Files.h"
#include "runtime/Runtime.h"
#include "runtime/StreamConnection.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

using ProgressReporter = std::function<void(ControlProgress)>;

/// What one method does. Both functions run on the main thread.
struct ControlMethod {
    std::function<Task<JSON>(JSON params, ProgressReporter report)> perform;
    /// What a client's disappearance does to a running request: the task is cancelled, or this is called
    /// instead. A method that must run to its end gives a function that does nothing.
    std::function<void(const JSON& params)> withdraw = {};
};
using ControlMethods = std::map<std::string, ControlMethod>;

/// Accepts connections until destroyed. Made and destroyed on the main thread.
class ControlServer {
  public:
    /// Listens at `socket` (0600), removing a stale file there first. Throws POSIXError.
    ControlServer(const Runtime& runtime, Path socket, ControlMethods methods);
    ~ControlServer();

    /// Expires once the server has gone and every request that it began has ended.
    std::weak_ptr<void> work() const { return work_; }

  private:
    class Connection;

    /// Runs on the queue and touches nothing of the server: accepted streams go to `onAccepted`.
    static Task<void> acceptConnections(Clock& clock, std::shared_ptr<StreamListener> listener,
                                        std::function<void(std::shared_ptr<StreamConnection>)> onAccepted);
    void adopt(std::shared_ptr<StreamConnection> stream);

    const Runtime& runtime_;
    Path socket_;
    ControlMethods methods_;
    SerialQueue queue_;
    std::shared_ptr<StreamListener> listener_;
    std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;  // main thread
    std::uint64_t nextConnection_ = 0;
    std::shared_ptr<void> work_ = std::make_shared<int>(0);
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    TaskHandle accepting_;
};

}  // namespace dorvane
