// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsBatchText.h"

namespace dorvane {

std::string withDOSLineEnds(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == '\n') result += '\r';
        result += c;
    }
    return result;
}

}  // namespace dorvane
