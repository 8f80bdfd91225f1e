// SPDX-License-Identifier: Apache-2.0
// The time limit within which a client must have sent its whole request.
#pragma once

#include "runtime/StreamConnection.h"

namespace dorvane {

/// One per connection; made, used and dropped on the connection's queue. Closes the connection, which ends its
/// pending read, once `limit` has passed without `setDone`.
class ReceiveDeadline {
  public:
    ReceiveDeadline(const SerialQueue& queue, Clock& clock, Duration limit,
                    const std::shared_ptr<StreamConnection>& connection)
        : timer_(queue.after(clock, limit, [weak = std::weak_ptr(connection)] {
              if (const auto late = weak.lock()) late->close();
          })) {}

    /// The request was fully dealt with: from here on the connection may take as long as it needs.
    void setDone() { timer_.cancel(); }

  private:
    Timer timer_;
};

}  // namespace dorvane
