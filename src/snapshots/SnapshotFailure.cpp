// SPDX-License-Identifier: Apache-2.0
#include "snapshots/SnapshotFailure.h"

namespace dorvane {

Task<std::exception_ptr> outcome(Task<void> task) {
    try {
        co_await std::move(task);
    } catch (...) {
        co_return std::current_exception();
    }
    co_return nullptr;
}

bool isCase(const std::exception_ptr& failure, DorvaneError::Case which) {
    if (!failure) return false;
    try {
        std::rethrow_exception(failure);
    } catch (const DorvaneError& error) {
        return error.which() == which;
    } catch (...) {
        return false;
    }
}

void rethrowAsOwn(DorvaneError::Case which, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const DorvaneError& error) {
        if (error.which() == DorvaneError::Case::vmSnapshotFailed) throw DorvaneError(which, error.text());
    } catch (...) {
        // As any other.
    }
    rethrowAs(which, failure);
}

}  // namespace dorvane
