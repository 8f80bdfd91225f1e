// SPDX-License-Identifier: Apache-2.0
// Where the user's and the system's own files live.
#pragma once

#include <filesystem>

namespace dorvane {

/// Plain paths, decided once at start; nothing here exists until somebody makes it.
struct ApplicationDirectories {
    std::filesystem::path applicationSupport;  // library store, activity log, guest keys
    std::filesystem::path configuration;       // settings
    std::filesystem::path caches;              // what can be made again
    std::filesystem::path state;               // logs
    std::filesystem::path documents;           // the user's documents; "Dorvane/VMs" below it by default
    std::filesystem::path runtime;             // control socket: the user's own, gone after log-out
    std::filesystem::path temporary;           // short enough for sockets below it
};

}  // namespace dorvane
