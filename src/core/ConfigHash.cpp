// SPDX-License-Identifier: Apache-2.0
#include "core/ConfigHash.h"

#include "base/SHA256.h"

namespace dorvane {

std::string configHash(const DorvaneVMConfig& config) { return SHA256::hex(compactJSON(config.encoded())); }

}  // namespace dorvane
