// SPDX-License-Identifier: Apache-2.0
#include "automation/ReceiveDeadline.h"

namespace dorvane {

ReceiveDeadlines::Place ReceiveDeadlines::add(const std::shared_ptr<StreamConnection>& connection) {
    const auto now = clock_.now();
    running_.push_back({connection, now + limit_});
    scheduleNext(now);
    return std::prev(running_.end());
}

void ReceiveDeadlines::scheduleNext(Instant now) {
    // One that is over already has been closed and is about to be taken off.
    const auto next = std::ranges::find_if(running_, [&](const Entry& entry) { return entry.due > now; });
    if (isScheduled_ || next == running_.end()) return;
    isScheduled_ = true;
    timer_ = queue_.after(clock_, next->due - now, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->closeOverdue();
    });
}

void ReceiveDeadlines::closeOverdue() {
    isScheduled_ = false;
    const auto now = clock_.now();
    for (const auto& entry : running_) {
        if (entry.due > now) break;
        if (const auto late = entry.connection.lock()) late->close();
    }
    scheduleNext(now);
}

}  // namespace dorvane
