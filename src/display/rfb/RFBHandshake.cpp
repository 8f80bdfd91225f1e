// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBHandshake.h"

#include <algorithm>

#include "base/Text.h"
#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/RFBFramebuffer.h"

namespace dorvane {
namespace {

constexpr std::string_view versionPrefix = "RFB 003.";
constexpr std::string_view ownVersion = "RFB 003.008\n";
constexpr std::uint8_t securityNone = 1;
constexpr std::uint8_t shared = 1;
constexpr std::size_t serverInitBytes = 24;
constexpr std::size_t maximumReasonBytes = 65'536;
constexpr std::size_t maximumNameBytes = 1'048'576;

void append(Bytes& out, ByteView bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }

}  // namespace

std::size_t RFBHandshake::consume(ByteView input, Bytes& output) {
    std::size_t taken = 0;
    while (!isFinished() && input.size() - taken >= awaited_) {
        const auto bytes = input.subspan(taken, awaited_);
        taken += bytes.size();
        advance(bytes, output);
    }
    return taken;
}

void RFBHandshake::advance(ByteView bytes, Bytes& output) {
    switch (state_) {
        case State::version:
            return readVersion(bytes, output);
        case State::securityCount:
            return bytes[0] == 0 ? wait(State::failureLength, 4) : wait(State::securityTypes, bytes[0]);
        case State::failureLength:
            return wait(State::failureText,
                        std::min<std::size_t>(loadBE32(bytes.data()), maximumReasonBytes));
        case State::failureText:
            throw RFBConnectionError::handshakeFailed(repairedUTF8(bytes));
        case State::securityTypes:
            return readSecurityTypes(bytes, output);
        case State::securityResult:
            if (loadBE32(bytes.data()) != 0)
                throw RFBConnectionError::handshakeFailed("The VM display rejected the connection.");
            output.push_back(shared);
            return wait(State::serverInit, serverInitBytes);
        case State::serverInit:
            return readServerInit(bytes);
        case State::name:
            return finish(bytes, output);
        case State::finished:
            return;
    }
}

void RFBHandshake::wait(State state, std::size_t bytes) {
    state_ = state;
    awaited_ = bytes;
}

void RFBHandshake::readVersion(ByteView bytes, Bytes& output) {
    if (!asText(bytes).starts_with(versionPrefix))
        throw RFBConnectionError::handshakeFailed("Unexpected protocol version: " + repairedUTF8(bytes));
    append(output, asBytes(ownVersion));
    wait(State::securityCount, 1);
}

void RFBHandshake::readSecurityTypes(ByteView types, Bytes& output) {
    if (std::find(types.begin(), types.end(), securityNone) == types.end())
        throw RFBConnectionError::handshakeFailed(
            "The VM display requires authentication, which Dorvane does not configure.");
    output.push_back(securityNone);
    wait(State::securityResult, 4);
}

void RFBHandshake::readServerInit(ByteView bytes) {
    RFBByteReader reader(bytes);
    serverInit_.width = *reader.readUInt16();
    serverInit_.height = *reader.readUInt16();
    serverInit_.format = *RFBPixelFormat::read(reader);
    const std::size_t nameLength = *reader.readUInt32();
    if (nameLength > maximumNameBytes || !RFBFramebuffer::isAcceptable(serverInit_.width, serverInit_.height))
        throw RFBConnectionError::handshakeFailed("Malformed ServerInit.");
    wait(State::name, nameLength);
}

void RFBHandshake::finish(ByteView name, Bytes& output) {
    serverInit_.name = repairedUTF8(name);
    append(output, RFBClientMessage::SetPixelFormat{RFBPixelFormat::bgra32()}.encoded());
    append(output, RFBClientMessage::SetEncodings{encodings_}.encoded());
    wait(State::finished, 0);
}

}  // namespace dorvane
