// SPDX-License-Identifier: Apache-2.0
// The names that Windows takes for a file or a folder.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <variant>

namespace dorvane::WindowsShareName {

constexpr std::string_view forbiddenCharacters = "\\/:*?\"<>|";
constexpr std::size_t maximumCharacters = 255;

enum class ValidationError { empty, tooLong, forbiddenCharacter, trailingDotOrBlank, reserved };
/// The sentence for the user.
std::string message(ValidationError error);

/// The name without blanks around it, or what is wrong with it.
using Result = std::variant<std::string, ValidationError>;
Result validate(std::string_view name);

}  // namespace dorvane::WindowsShareName
