// SPDX-License-Identifier: Apache-2.0
// Why a display connection could not begin or had to end.
#pragma once

#include <stdexcept>
#include <string>

namespace dorvane {

class RFBConnectionError : public std::runtime_error {
  public:
    enum class Case { socketPathTooLong, socketUnavailable, handshakeFailed, connectionClosed };

    static RFBConnectionError socketPathTooLong(const std::string& path, std::size_t limit);
    static RFBConnectionError socketUnavailable(const std::string& path);
    static RFBConnectionError handshakeFailed(const std::string& text);
    static RFBConnectionError connectionClosed();

    Case which() const { return which_; }

  private:
    RFBConnectionError(Case which, const std::string& text) : std::runtime_error(text), which_(which) {}
    Case which_;
};

}  // namespace dorvane
