// SPDX-License-Identifier: Apache-2.0
// Clients that ask a server for its tools, each time over a new connection.
#pragma once

#include <cstddef>

#include "mcp/ServerChild.h"

namespace dorvane::bench {

struct LoadResult {
    std::size_t requests = 0;
    double seconds = 0;
    double serverCPUSeconds = 0;

    double rate() const { return double(requests) / seconds; }
    double cpuMicrosecondsPerRequest() const { return serverCPUSeconds / double(requests) * 1e6; }
};

/// Runs `clients` threads for `seconds`. Every answer must list at least `tools` tools; throws
/// std::runtime_error for the first that doesn't.
LoadResult runLoad(const ServerChild& server, int clients, double seconds, std::size_t tools);

/// Holds 16 idle connections and says whether the seventeenth is closed without a reply, and whether the
/// server answers again once they are gone.
bool refusesSeventeenth(const ServerChild& server);

}  // namespace dorvane::bench
