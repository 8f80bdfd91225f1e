// SPDX-License-Identifier: Apache-2.0
// What a display connection did in the last second or so, for the developer's log.
#pragma once

#include "runtime/Clock.h"
#include "runtime/Logger.h"

namespace dorvane {

struct DisplayStats {
    Instant windowStart{};
    std::uint64_t socketBytes = 0;
    std::uint64_t frames = 0;
    Duration applyTime{};     // parsing, decoding and drawing
    Duration imageTime{};     // making pictures
    Duration idleWaitTime{};  // from the end of an update to the header of the next
    Duration receiveTime{};   // from an update's header to its end
    std::uint64_t cursorRects = 0;
    std::uint64_t rects = 0;

    /// Once a second has passed since the window began: logs at debug level and begins a new window.
    void reportIfDue(Instant now, const Logger& logger);
};

}  // namespace dorvane
