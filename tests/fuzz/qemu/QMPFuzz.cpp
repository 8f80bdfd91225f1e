// SPDX-License-Identifier: Apache-2.0
// QMP bytes: the first byte says how the stream is cut into reads.
#include <cstdlib>

#include "qemu/QMPCodec.h"
#include "qemu/QMPLineBuffer.h"
#include "qemu/QMPStateMapper.h"

using namespace dorvane;

namespace {

void decode(const std::string& line) {
    if (line.empty() || line.find('\n') != std::string::npos) std::abort();
    try {
        const auto message = QMPCodec::decode(line);
        if (const auto* event = message.event()) QMPStateMapper::stopReason(event->data, false);
    } catch (const QMPCodec::DecodeError&) {
        // What the connection drops.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t chunk = data[0] % 64 + 1;
    ByteView rest(data + 1, size - 1);
    QMPLineBuffer buffer;
    while (!rest.empty()) {
        const auto count = std::min(chunk, rest.size());
        for (const auto& line : buffer.append(rest.first(count))) decode(line);
        rest = rest.subspan(count);
    }
    if (buffer.pendingBytes() > size) std::abort();
    return 0;
}
