#pragma once

/// @file
/// The case of characters, for the text calls and the registry.

#include <string>
#include <string_view>

/// @{
/// Case of one character, by Unicode's simple mapping, independent of the process's locale. Where the
/// system has no Unicode locale only ASCII has case.
char32_t Utf8ToLower(char32_t ch);
char32_t Utf8ToUpper(char32_t ch);
/// @}

/// The text with all characters in upper case, for comparing without case.
std::string Utf8Fold(std::string_view text);
