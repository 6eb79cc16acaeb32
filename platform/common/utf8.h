#pragma once

/// @file
/// UTF-8, for the text calls and the registry.

#include <cstddef>
#include <cstdint>
#include <string_view>

/// One character of a text. Bytes that form no character count as characters of one byte each, with
/// `bValid` false and `ch` the byte.
struct CUtf8Char {
    char32_t ch; ///< the character, or the byte
    unsigned cb; ///< bytes, 1 to 4
    bool bValid; ///< it is a character
};

/// The character at the head of a text that is not empty.
CUtf8Char Utf8Decode(std::string_view text);

/// Writes ch, a valid character, to pb (4 bytes) and returns the number of bytes.
unsigned Utf8Encode(char32_t ch, char *pb);
