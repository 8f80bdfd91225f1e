// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPAuthToken.h"

#include "base/Hex.h"
#include "base/RandomBytes.h"
#include "base/Text.h"

namespace dorvane {
namespace {

constexpr auto keychainService = "com.brontide.dorvane.mcp";
constexpr auto keychainAccount = "endpointToken";
constexpr std::size_t tokenByteCount = 16;
constexpr std::string_view tokenPathPrefix = "/mcp/";
constexpr std::string_view bearerScheme = "bearer ";

}  // namespace

std::string MCPAuthToken::makeToken() { return hexText(randomBytes(tokenByteCount)); }

std::string MCPAuthToken::load(KeychainHelper& store) {
    const auto secret = store.read(keychainService, keychainAccount);
    if (!secret || secret->empty() || !isValidUTF8(asText(*secret))) return regenerate(store);
    return std::string(asText(*secret));
}

std::string MCPAuthToken::regenerate(KeychainHelper& store) {
    auto token = makeToken();
    store.save(keychainService, keychainAccount, asBytes(token));
    return token;
}

bool MCPAuthToken::isStored(KeychainHelper& store, std::string_view token) {
    const auto secret = store.read(keychainService, keychainAccount);
    return secret && asText(*secret) == token;
}

bool MCPAuthToken::matches(std::string_view a, std::string_view b) { return equalInConstantTime(a, b); }

std::optional<std::string> MCPAuthToken::bearerToken(const HTTPRequestParser::Headers& headers) {
    const auto header = headers.find("authorization");
    if (header == headers.end()) return std::nullopt;
    const std::string_view value = header->second;
    if (asciiLowercased(value.substr(0, bearerScheme.size())) != bearerScheme) return std::nullopt;
    const auto token = trimmed(value.substr(bearerScheme.size()));
    if (token.empty()) return std::nullopt;
    return std::string(token);
}

bool MCPAuthToken::isAuthorized(std::string_view path, const HTTPRequestParser::Headers& headers,
                                std::string_view token) {
    if (token.empty()) return false;
    if (path.starts_with(tokenPathPrefix) && matches(path.substr(tokenPathPrefix.size()), token)) return true;
    const auto bearer = bearerToken(headers);
    return bearer && matches(*bearer, token);
}

bool MCPAuthToken::isEndpointPath(std::string_view path) {
    return path == "/mcp" || path.starts_with(tokenPathPrefix);
}

std::string MCPAuthToken::endpointURLString(int port, const std::string& token) {
    return "http://127.0.0.1:" + std::to_string(port) + std::string(tokenPathPrefix) + token;
}

}  // namespace dorvane
