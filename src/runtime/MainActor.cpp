// SPDX-License-Identifier: Apache-2.0
#include "runtime/MainActor.h"

#include <boost/asio/post.hpp>
#include <cassert>

namespace dorvane {

void MainActor::async(std::function<void()> action) const { asio::post(executor_, std::move(action)); }

void MainActor::assertIsolated() const {
    assert(isCurrent() && "main-thread state touched from another thread");
}

}  // namespace dorvane
