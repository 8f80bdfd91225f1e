// SPDX-License-Identifier: Apache-2.0
// The one translation unit in which Boost.Asio is compiled.
#include <boost/asio/impl/src.hpp>
