// SPDX-License-Identifier: Apache-2.0
// `tools/list` over new connections, asked of this program's MCP server and of one made with the public SDK
// from npm, in turns in one run; prints rates, server CPU per request and the ratios:
//
//   dorvane_bench_mcp [--rounds N] [--seconds S] [--clients C]
#include <csignal>
#include <cstdio>
#include <cstring>

#include "mcp/Load.h"

namespace dorvane::bench {
namespace {

constexpr std::size_t toolCount = 12;
constexpr double warmUpSeconds = 1;

struct Options {
    int rounds = 3;
    int clients = 4;
    double seconds = 3;
};

Options parse(int count, char** arguments) {
    Options options;
    for (int i = 1; i + 1 < count; i += 2) {
        if (std::strcmp(arguments[i], "--rounds") == 0) options.rounds = std::stoi(arguments[i + 1]);
        if (std::strcmp(arguments[i], "--clients") == 0) options.clients = std::stoi(arguments[i + 1]);
        if (std::strcmp(arguments[i], "--seconds") == 0) options.seconds = std::stod(arguments[i + 1]);
    }
    return options;
}

void add(LoadResult& total, const LoadResult& one, const char* name) {
    std::printf("  %-8s %9.0f requests/s  %8.1f us CPU/request\n", name, one.rate(),
                one.cpuMicrosecondsPerRequest());
    std::fflush(stdout);
    total.requests += one.requests;
    total.seconds += one.seconds;
    total.serverCPUSeconds += one.serverCPUSeconds;
}

int run(const Options& options) {
    const ServerChild ours({DORVANE_BENCH_HOST});
    const ServerChild theirs({"/usr/bin/env", "node", DORVANE_NODE_SERVER});
    runLoad(theirs, options.clients, warmUpSeconds, toolCount);
    runLoad(ours, options.clients, warmUpSeconds, toolCount);
    LoadResult ourTotal, theirTotal;
    for (int round = 0; round < options.rounds; ++round) {
        std::printf("round %d, %d clients\n", round + 1, options.clients);
        add(theirTotal, runLoad(theirs, options.clients, options.seconds, toolCount), "sdk");
        add(ourTotal, runLoad(ours, options.clients, options.seconds, toolCount), "dorvane");
    }
    std::printf(
        "all: %.1f times the rate (%.0f to %.0f per second), %.3f of the CPU per request (%.1f to %.1f us)\n",
        ourTotal.rate() / theirTotal.rate(), ourTotal.rate(), theirTotal.rate(),
        ourTotal.cpuMicrosecondsPerRequest() / theirTotal.cpuMicrosecondsPerRequest(),
        ourTotal.cpuMicrosecondsPerRequest(), theirTotal.cpuMicrosecondsPerRequest());
    const bool refuses = refusesSeventeenth(ours);
    std::printf("16 held connections, the 17th refused: %s\n", refuses ? "yes" : "NO");
    return refuses ? 0 : 1;
}

}  // namespace
}  // namespace dorvane::bench

int main(int count, char** arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return dorvane::bench::run(dorvane::bench::parse(count, arguments));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
