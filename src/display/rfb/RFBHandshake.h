// SPDX-License-Identifier: Apache-2.0
// The client's side of the RFB 3.8 handshake (RFC 6143, section 7.1 to 7.3), as bytes in and bytes out.
#pragma once

#include <vector>

#include "display/rfb/RFBClientMessage.h"

namespace dorvane {

/// | state          | waits for                     | then answers                       | next           |
/// | version        | 12 bytes "RFB 003.…"          | "RFB 003.008\n"                    | securityCount  |
/// | securityCount  | the number of types           |                                    | securityTypes,
/// failureLength for 0 | | failureLength  | the length of the reason      | | failureText    | | failureText
/// | the reason                    | (throws)                           |                | | securityTypes  |
/// that many types, 1 among them | 1                                  | securityResult | | securityResult |
/// four bytes, 0                 | 1 (shared)                         | serverInit     | | serverInit     |
/// size, format, name length     |                                    | name           | | name           |
/// the name                      | setPixelFormat, setEncodings       | finished       |
class RFBHandshake {
  public:
    /// What the server told of itself; its own pixel format is replaced by `bgra32`.
    struct ServerInit {
        int width = 0, height = 0;
        RFBPixelFormat format;
        std::string name;
    };

    explicit RFBHandshake(std::vector<RFBEncoding> encodings) : encodings_(std::move(encodings)) {}

    /// Takes what it can from the front of `input`, appends the answers to `output` and returns how many
    /// bytes it took; nothing is taken once finished. Throws RFBConnectionError.
    std::size_t consume(ByteView input, Bytes& output);
    bool isFinished() const { return state_ == State::finished; }
    const ServerInit& serverInit() const { return serverInit_; }

  private:
    enum class State {
        version,
        securityCount,
        failureLength,
        failureText,
        securityTypes,
        securityResult,
        serverInit,
        name,
        finished
    };

    /// Each state waits for a known number of bytes, is given exactly those, and says what comes next.
    void advance(ByteView bytes, Bytes& output);
    void wait(State state, std::size_t bytes);
    void readVersion(ByteView bytes, Bytes& output);
    void readSecurityTypes(ByteView types, Bytes& output);
    void readServerInit(ByteView bytes);
    void finish(ByteView name, Bytes& output);

    std::vector<RFBEncoding> encodings_;
    State state_ = State::version;
    std::size_t awaited_ = 12;
    ServerInit serverInit_;
};

}  // namespace dorvane
