// SPDX-License-Identifier: Apache-2.0
// The program's version, as the build knows it.
#pragma once

namespace dorvane {

constexpr auto version = DORVANE_VERSION;

}  // namespace dorvane
