// SPDX-License-Identifier: Apache-2.0
#include "qemu/QMPLineBuffer.h"

#include <utility>

namespace dorvane {

std::vector<std::string> QMPLineBuffer::append(ByteView bytes) {
    std::vector<std::string> lines;
    // What is held has no line feed in it: only the new bytes are searched.
    auto rest = asText(bytes);
    for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        buffer_.append(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        if (!buffer_.empty()) lines.push_back(std::exchange(buffer_, {}));
    }
    buffer_.append(rest);
    return lines;
}

}  // namespace dorvane
