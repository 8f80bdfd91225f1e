// SPDX-License-Identifier: Apache-2.0
#include "core/VMStatus.h"

#include <algorithm>
#include <array>

#include "base/Localized.h"

namespace dorvane {
namespace {

struct StatusTexts {
    const char* raw;
    const char* display;
};
/// In the order of the enumeration.
constexpr std::array<StatusTexts, 5> texts{{{"stopped", "Stopped"},
                                            {"starting", "Starting"},
                                            {"running", "Running"},
                                            {"paused", "Paused"},
                                            {"error", "Error"}}};

const StatusTexts& textsOf(VMStatus status) { return texts.at(static_cast<std::size_t>(status)); }

}  // namespace

std::string rawValue(VMStatus status) { return textsOf(status).raw; }

std::optional<VMStatus> statusFromRawValue(std::string_view text) {
    for (std::size_t i = 0; i < texts.size(); ++i)
        if (text == texts[i].raw) return static_cast<VMStatus>(i);
    return std::nullopt;
}

std::string displayText(VMStatus status) { return localized(textsOf(status).display); }

std::string describe(const VMStopReason& reason) {
    switch (reason.kind) {
        case VMStopReason::Kind::guestInitiated:
            return "guest initiated";
        case VMStopReason::Kind::requested:
            return "requested";
        case VMStopReason::Kind::forced:
            return "forced";
        case VMStopReason::Kind::failure:
            break;
    }
    auto line = "failure: " + reason.message;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

}  // namespace dorvane
