// SPDX-License-Identifier: Apache-2.0
#include "automation/ReceiveDeadline.h"

namespace dorvane {

ReceiveDeadlines::Place ReceiveDeadlines::add(const std::shared_ptr<StreamConnection>& connection) {
    running_.push_back({connection, clock_.now() + limit_});
    scheduleFirst();
    return std::prev(running_.end());
}

void ReceiveDeadlines::scheduleFirst() {
    if (isScheduled_ || running_.empty()) return;
    isScheduled_ = true;
    timer_ = queue_.after(clock_, running_.front().due - clock_.now(), [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->closeOverdue();
    });
}

void ReceiveDeadlines::closeOverdue() {
    isScheduled_ = false;
    const auto now = clock_.now();
    for (const auto& entry : running_) {
        if (entry.due > now) break;
        // Its reader takes it off this list.
        if (const auto late = entry.connection.lock()) late->close();
    }
    scheduleFirst();
}

}  // namespace dorvane
