// SPDX-License-Identifier: Apache-2.0
// Notifying observers on the thread of the change.
#pragma once

#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>

namespace dorvane {

template <typename... Arguments>
using Signal = boost::signals2::signal<void(Arguments...)>;

/// Keeps an observer subscribed for as long as it lives.
using Subscription = boost::signals2::scoped_connection;

}  // namespace dorvane
