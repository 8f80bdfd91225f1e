// SPDX-License-Identifier: Apache-2.0
#include "core/LongOperationRegistry.h"

namespace dorvane {

LongOperationRegistry::Entry::Entry(LongOperationRegistry& registry, std::string label)
    : registry_(registry) {
    registry_.active_.emplace(id_, std::move(label));
    registry_.changed();
}

LongOperationRegistry::Entry::~Entry() {
    registry_.active_.erase(id_);
    registry_.changed();
}

}  // namespace dorvane
