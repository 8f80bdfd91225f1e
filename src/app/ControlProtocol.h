// SPDX-License-Identifier: Apache-2.0
// The words between the command line and a running service: JSON-RPC 2.0 (jsonrpc.org), one object a line,
// over a Unix socket of the user's own.
//
// A request carries a method and named parameters. While it runs, the service may send any number of
// notifications of the method "progress" with "message" and, when known, "fraction" (0 to 1). Then comes one
// response. Closing the connection withdraws what is still running.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/JSON.h"

namespace dorvane {

/// A longer line ends the connection.
constexpr std::size_t maximumControlLineBytes = 64 << 20;

struct ControlRequest {
    JSON id;
    std::string method;
    JSON params = JSON::object();
};

struct ControlProgress {
    std::string message;
    std::optional<double> fraction;
};

/// The error codes of JSON-RPC, and one of ours: the operation itself failed, with its sentence as message.
enum class ControlErrorCode {
    parseError = -32700,
    invalidRequest = -32600,
    methodNotFound = -32601,
    invalidParams = -32602,
    operationFailed = -32000
};

class ControlError : public std::runtime_error {
  public:
    ControlError(ControlErrorCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    ControlErrorCode code() const { return code_; }

  private:
    ControlErrorCode code_;
};

/// Throws ControlError (parseError or invalidRequest).
ControlRequest parseControlRequest(std::string_view line);

// Lines ready for the wire, each with its line feed.
std::string controlRequestLine(const ControlRequest& request);
std::string controlResultLine(const JSON& id, const JSON& result);
std::string controlErrorLine(const JSON& id, ControlErrorCode code, const std::string& message);
std::string controlProgressLine(const ControlProgress& progress);

/// Cuts arriving bytes into lines. Throws ControlError once a line grows beyond the limit.
class ControlLineBuffer {
  public:
    /// The lines that are complete now, without their line feeds; empty ones are passed over.
    std::vector<std::string> append(std::string_view bytes);

  private:
    std::string rest_;
};

}  // namespace dorvane
