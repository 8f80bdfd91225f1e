// SPDX-License-Identifier: Apache-2.0
// Failures of system calls, with the system's own words.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>

namespace dorvane {

/// "Address already in use" and the like, for an errno.
std::string errnoText(int number);

class POSIXError : public std::runtime_error {
  public:
    explicit POSIXError(int number) : std::runtime_error(errnoText(number)), number_(number) {}
    /// `what` says what failed; the system's text follows after ": ".
    POSIXError(const std::string& what, int number)
        : std::runtime_error(what + ": " + errnoText(number)), number_(number) {}

    int number() const { return number_; }

  private:
    int number_;
};

}  // namespace dorvane
