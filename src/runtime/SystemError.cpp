// SPDX-License-Identifier: Apache-2.0
#include "runtime/SystemError.h"

#include <system_error>

namespace dorvane {

std::string errnoText(int number) { return std::generic_category().message(number); }

}  // namespace dorvane
