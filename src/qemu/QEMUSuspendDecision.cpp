// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUSuspendDecision.h"

#include "base/Text.h"
#include "core/ConfigHash.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumSidecarBytes = 65536;

/// Absent when it can't be read.
std::optional<std::string> sidecarText(const Path& file) {
    try {
        return readTextFile(file, maximumSidecarBytes);
    } catch (const FileError&) {
        return std::nullopt;
    }
}

/// Memory and processors belong to the description; a state saved under another one is of no use.
bool stateMatches(const VMBundle& bundle, const DorvaneVMConfig& config) {
    const auto hash = sidecarText(bundle.savedStateHash());
    return hash && trimmed(*hash) == configHash(config);
}

}  // namespace

QEMUSuspendDecision::Outcome QEMUSuspendDecision::decide(const VMBundle& bundle,
                                                         const DorvaneVMConfig& config,
                                                         const QEMUSuspendFingerprint& current) {
    if (!bundle.hasSavedState() || !stateMatches(bundle, config)) return Outcome::discard;
    const auto text = sidecarText(bundle.savedStateDevices());
    const auto saved = text ? QEMUSuspendFingerprint::parse(*text) : std::nullopt;
    // A new build of QEMU simply boots cold.
    if (!saved || saved->engine != current.engine) return Outcome::discard;
    return saved->devices == current.devices ? Outcome::resume : Outcome::hardwareChanged;
}

}  // namespace dorvane
