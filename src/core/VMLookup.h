// SPDX-License-Identifier: Apache-2.0
// Finding a machine by what a person or a script calls it.
#pragma once

#include <string_view>
#include <vector>

#include "core/VMRecord.h"

namespace dorvane {

/// Three passes over the list: the UUID's text, the exact name, the name without regard to case. Null when
/// none.
VMRecordPointer findVM(const std::vector<VMRecordPointer>& vms, std::string_view nameOrID);

}  // namespace dorvane
