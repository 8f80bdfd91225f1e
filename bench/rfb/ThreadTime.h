// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ctime>

namespace dorvane::bench {

/// CPU time that the calling thread has used, in user and kernel mode.
inline double threadSeconds() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

}  // namespace dorvane::bench
