// SPDX-License-Identifier: Apache-2.0
// The time limit within which a client must have sent its whole request.
#pragma once

#include <list>
#include <optional>

#include "runtime/StreamConnection.h"

namespace dorvane {

/// The limits that run at present on one queue, and used on it alone. They are all of one length and so end
/// in the order in which they began: one timer serves them all. Held by a shared pointer.
class ReceiveDeadlines : public std::enable_shared_from_this<ReceiveDeadlines> {
  public:
    struct Entry {
        std::weak_ptr<StreamConnection> connection;
        Instant due;
    };
    using Place = std::list<Entry>::iterator;

    ReceiveDeadlines(SerialQueue queue, Clock& clock, Duration limit)
        : queue_(std::move(queue)), clock_(clock), limit_(limit) {}

    /// From now on; a connection that is still here when its time is over is closed, which ends its pending
    /// read.
    Place add(const std::shared_ptr<StreamConnection>& connection);
    void remove(Place place) { running_.erase(place); }

  private:
    /// `now` is the moment up to which overdue connections have been closed.
    void scheduleNext(Instant now);
    void closeOverdue();

    const SerialQueue queue_;
    Clock& clock_;
    const Duration limit_;
    std::list<Entry> running_;
    Timer timer_;
    bool isScheduled_ = false;
};

/// One connection's limit.
class ReceiveDeadline {
  public:
    ReceiveDeadline(std::shared_ptr<ReceiveDeadlines> all,
                    const std::shared_ptr<StreamConnection>& connection)
        : all_(std::move(all)), place_(all_->add(connection)) {}
    ReceiveDeadline(const ReceiveDeadline&) = delete;
    ReceiveDeadline& operator=(const ReceiveDeadline&) = delete;
    ~ReceiveDeadline() { setDone(); }

    /// The request was fully dealt with: from here on the connection may take as long as it needs.
    void setDone() {
        if (place_) all_->remove(*place_);
        place_.reset();
    }

  private:
    std::shared_ptr<ReceiveDeadlines> all_;
    std::optional<ReceiveDeadlines::Place> place_;
};

}  // namespace dorvane
