// SPDX-License-Identifier: Apache-2.0
// Any bytes as a snapshot's "meta.json": either refused with a JSONError, or read and written back to an
// equal value.
#include "snapshots/SnapshotMetadata.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    try {
        const auto metadata = SnapshotMetadata::decoded(asText({data, size}));
        if (SnapshotMetadata::decoded(metadata.encoded()) != metadata) __builtin_trap();
    } catch (const JSONError&) {
    }
    return 0;
}
