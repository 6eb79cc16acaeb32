#pragma once
/// @file
/// Text from elsewhere on its way to a terminal.
#include <string>
#include <string_view>

/// The text with every byte that is no showable character as \xNN, so that no line can move the cursor,
/// pretend to be two lines, turn the direction of the text, or break the terminal. Tabs and well-formed UTF-8
/// stay as they are.
std::string Showable(std::string_view str);
