// SPDX-License-Identifier: Apache-2.0
// Lower-case hexadecimal and base64 text forms of bytes.
#pragma once

#include <optional>
#include <string>

#include "base/Bytes.h"

namespace dorvane {

/// Two lower-case digits a byte.
std::string hexText(ByteView bytes);
/// Standard alphabet with padding (RFC 4648, section 4).
std::string base64Text(ByteView bytes);
/// Absent unless the whole text is padded standard base64.
std::optional<Bytes> parseBase64(std::string_view text);

}  // namespace dorvane
