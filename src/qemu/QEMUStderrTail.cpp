// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUStderrTail.h"

#include "base/Text.h"
#include "runtime/Timeout.h"

namespace dorvane {

void QEMUStderrTail::append(ByteView bytes) {
    const std::lock_guard lock(mutex_);
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    if (data_.size() > capacity) data_.erase(data_.begin(), data_.end() - capacity);
}

Task<void> QEMUStderrTail::waitForEndOfFile(Clock& clock, Duration limit) const {
    auto wait = [](Event event) -> Task<bool> {
        co_await event.wait();
        co_return true;
    };
    co_await withTimeout(clock, limit, wait(endOfFile_));
}

std::string QEMUStderrTail::text() const {
    const std::lock_guard lock(mutex_);
    return repairedUTF8(data_);
}

}  // namespace dorvane
