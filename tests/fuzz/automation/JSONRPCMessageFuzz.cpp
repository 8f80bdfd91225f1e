// SPDX-License-Identifier: Apache-2.0
// Any bytes as a JSON-RPC message: a reply to it is JSON again and carries the same id.
#include "automation/JSONRPCMessage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    const auto body = asText({data, size});
    const auto message = JSONRPCMessage::parse(body);
    std::string id;
    if (const auto* call = std::get_if<JSONRPCMessage::Call>(&message)) id = call->idText;
    if (const auto* incomplete = std::get_if<JSONRPCMessage::WithoutMethod>(&message))
        id = incomplete->idText;
    if (id.empty()) return 0;
    const auto sent = parseJSON(body).at("id");
    if (parseJSON(JSONRPCMessage::resultReply(id, "{}")).at("id") != sent) __builtin_trap();
    if (parseJSON(JSONRPCMessage::errorReply(id, -1, "x")).at("id") != sent) __builtin_trap();
    return 0;
}
