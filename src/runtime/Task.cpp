// SPDX-License-Identifier: Apache-2.0
#include "runtime/Task.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

namespace dorvane {

bool isCancellation(const std::exception_ptr& error) {
    if (!error) return false;
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return true;
    } catch (const boost::system::system_error& systemError) {
        return systemError.code() == asio::error::operation_aborted;
    } catch (...) {
        return false;
    }
}

std::string errorText(const std::exception_ptr& error) {
    if (!error) return "No error.";
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& known) {
        return known.what();
    } catch (...) {
        return "An unknown error occurred.";
    }
}

}  // namespace dorvane
