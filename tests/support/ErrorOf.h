// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "core/DorvaneError.h"

namespace dorvane::test {

/// What `action` throws; where that is nothing or something else, an `unknown` that says so.
template <typename Action>
DorvaneError errorOf(Action&& action) {
    try {
        action();
    } catch (const DorvaneError& error) {
        return error;
    } catch (const std::exception& error) {
        return DorvaneError(DorvaneError::Case::unknown, error.what());
    }
    return DorvaneError(DorvaneError::Case::unknown, "nothing was thrown");
}

}  // namespace dorvane::test
