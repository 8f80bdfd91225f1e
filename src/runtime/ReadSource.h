// SPDX-License-Identifier: Apache-2.0
// Calls a handler on a serial queue whenever a descriptor can be read.
#pragma once

#include <functional>
#include <memory>

#include "runtime/FileDescriptor.h"
#include "runtime/SerialQueue.h"

namespace dorvane {

/// Owns the descriptor. Made and cancelled on the queue; the handler runs there, level-triggered: as long as
/// bytes (or an end of stream) wait, it is called again after it returns. After `cancel`, or destruction on
/// the queue, it is never called again and the descriptor is closed.
class ReadSource {
  public:
    ReadSource(const SerialQueue& queue, FileDescriptor fd, std::function<void()> onReadable);
    ~ReadSource();

    int descriptor() const;
    void cancel();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace dorvane
