// SPDX-License-Identifier: Apache-2.0
// Any bytes as a link: ignored, or a command whose texts are visible and can be shown.
#include "automation/URLCommand.h"
#include "base/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorvane;
    const auto isText = [](const std::string& text) {
        return !text.empty() && trimmed(text) == text && isValidUTF8(text);
    };
    const auto command = URLCommand::parse(asText({data, size}), Date{});
    if (!command) return 0;
    if (!isText(command->vm)) __builtin_trap();
    if (command->kind == URLCommand::Kind::snapshot ? !isText(command->name) : !command->name.empty())
        __builtin_trap();
    return 0;
}
