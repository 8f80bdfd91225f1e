// SPDX-License-Identifier: Apache-2.0
// Any bytes as "config.json": either refused with a JSONError, or read and written back to an equal value.
#include "core/DorvaneVMConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    try {
        const auto config = DorvaneVMConfig::decoded(parseJSON(asText({data, size})));
        if (DorvaneVMConfig::decoded(parseJSON(prettyJSON(config.encoded()))) != config) __builtin_trap();
    } catch (const JSONError&) {
    }
    return 0;
}
