// SPDX-License-Identifier: Apache-2.0
#include "automation/GuestOutputText.h"

#include <iconv.h>

#include <memory>

#include "base/Text.h"

namespace dorvane {
namespace {

constexpr int utf8CodePage = 65001;

/// Absent for an unknown page and for bytes that it has no meaning for.
std::optional<std::string> fromCodePage(int page, const Bytes& bytes) {
    const auto converter = ::iconv_open("UTF-8", ("CP" + std::to_string(page)).c_str());
    if (converter == reinterpret_cast<iconv_t>(-1)) return std::nullopt;  // NOLINT(performance-no-int-to-ptr)
    const std::unique_ptr<void, int (*)(iconv_t)> closing(converter, ::iconv_close);
    std::string text(bytes.size() * 4 + 16, '\0');
    // The interface takes a pointer to non-const and doesn't write through it.
    auto* input = reinterpret_cast<char*>(const_cast<std::uint8_t*>(bytes.data()));
    auto* output = text.data();
    std::size_t inputLeft = bytes.size(), outputLeft = text.size();
    if (::iconv(converter, &input, &inputLeft, &output, &outputLeft) == static_cast<std::size_t>(-1))
        return std::nullopt;
    text.resize(text.size() - outputLeft);
    return text;
}

}  // namespace

std::string guestOutputText(const GuestCommandResult& result) {
    const bool usesPage = result.textEncoding == GuestTextEncoding::windowsCodePage && result.codePage &&
                          *result.codePage != utf8CodePage;
    if (usesPage)
        if (auto text = fromCodePage(*result.codePage, result.standardOutput)) return *std::move(text);
    if (isValidUTF8(asText(result.standardOutput))) return std::string(asText(result.standardOutput));
    return repairedUTF8(result.standardOutput);
}

}  // namespace dorvane
