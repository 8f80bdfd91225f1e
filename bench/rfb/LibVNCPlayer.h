// SPDX-License-Identifier: Apache-2.0
// The peer: libvncclient, playing a recording into a framebuffer.
#pragma once

#include <functional>

#include "rfb/Recording.h"

namespace dorvane::bench {

/// Plays the recording's `messageCount` server messages from `fd` with all decoder state new. `screen` has
/// the recording's size at 32 bits a pixel; `afterEach` message it may be looked at. Returns the CPU seconds
/// of this thread that it took. Throws std::runtime_error when the library gives up.
double playWithLibVNC(const Recording& recording, int fd, std::size_t messageCount, Bytes& screen,
                      const std::function<void()>& afterEach = {});

}  // namespace dorvane::bench
