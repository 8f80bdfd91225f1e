// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/DisplayStats.h"

#include <algorithm>

namespace dorvane {
namespace {

constexpr Duration window = seconds(1);
constexpr double bytesPerMebibyte = 1'048'576;

double asSeconds(Duration duration) { return std::chrono::duration<double>(duration).count(); }

std::string asMilliseconds(Duration duration) { return fmt::format("{:.0f}", asSeconds(duration) * 1000); }

}  // namespace

void DisplayStats::reportIfDue(Instant now, const Logger& logger) {
    const auto elapsed = now - windowStart;
    if (elapsed < window) return;
    const auto perFrame = double(socketBytes) / bytesPerMebibyte / double(std::max<std::uint64_t>(frames, 1));
    logger.debug(
        "显示 %{public}s fps  每帧 %{public}s MiB  空等 %{public}s ms/s  收+贴 %{public}s ms/s  "
        "解码 %{public}s ms/s  成图 %{public}s ms/s  光标包 %{public}ld  矩形 %{public}ld",
        fmt::format("{:.1f}", double(frames) / asSeconds(elapsed)), fmt::format("{:.2f}", perFrame),
        asMilliseconds(idleWaitTime), asMilliseconds(receiveTime), asMilliseconds(applyTime),
        asMilliseconds(imageTime), cursorRects, rects);
    *this = DisplayStats{.windowStart = now};
}

}  // namespace dorvane
