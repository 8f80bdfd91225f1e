// SPDX-License-Identifier: Apache-2.0
// Gives blocks of zeros back to the file system.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// Files below this size are left as they are.
constexpr std::uint64_t smallestPunchedFile = 64 << 20;
/// Only whole blocks of this size are given back; adjacent ones in one request.
constexpr std::size_t punchedBlockBytes = 1 << 20;

/// Every regular file in the tree; links are not followed. Blocking. Failures are ignored: a file is correct
/// without holes. What is a hole already isn't read.
void punchZeroHoles(const Path& inFilesUnder);

}  // namespace dorvane
