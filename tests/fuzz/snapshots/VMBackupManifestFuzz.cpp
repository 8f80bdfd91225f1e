// SPDX-License-Identifier: Apache-2.0
// Any bytes as a backup's descriptions: either refused with a JSONError, or read and written back to an equal
// value.
#include "snapshots/VMBackupManifest.h"

namespace {

using namespace dorvane;

template <typename T>
T again(const T& value) {
    return T::decoded(parseJSON(prettyJSON(value.encoded())));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        // A date in numbers loses its fraction in the first round.
        const auto manifest = again(VMBackupManifest::decoded(parseJSON(asText({data, size}))));
        if (again(manifest) != manifest) __builtin_trap();
    } catch (const JSONError&) {
    }
    try {
        const auto record = VMBackupRecordSnapshot::decoded(parseJSON(asText({data, size})));
        if (again(record) != record) __builtin_trap();
    } catch (const JSONError&) {
    }
    return 0;
}
