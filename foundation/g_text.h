/// @file
/// The constant strings of the system, which the sources use instead of literals of their own.
///
/// Three empty strings, then 24 pairs. The two entries of a pair are separate strings with the same
/// text, so that two users of one text can be told apart by address.

#pragma once

#include <cstddef>

/// Names of the constant strings.
enum EGText : std::size_t {
    eGT_EMPTY,      ///< for absent text arguments
    eGT_EMPTY_WIDE, ///< all its bytes are zero and it is aligned, so it ends a wide string as well
    eGT_EMPTY_DEFAULT, ///< for defaults
    eGT_PAREN_OPEN,
    eGT_PAREN_OPEN_2,
    eGT_PAREN_CLOSE,
    eGT_PAREN_CLOSE_2,
    eGT_BRACKET_OPEN,
    eGT_BRACKET_OPEN_2,
    eGT_BRACKET_CLOSE,
    eGT_BRACKET_CLOSE_2,
    eGT_BRACE_OPEN,
    eGT_BRACE_OPEN_2,
    eGT_BRACE_CLOSE,
    eGT_BRACE_CLOSE_2,
    eGT_CRLF,
    eGT_CRLF_2,
    eGT_EQUALS,
    eGT_EQUALS_2,
    eGT_BAR,
    eGT_BAR_2,
    eGT_BLANK,
    eGT_BLANK_2,
    eGT_DASH,
    eGT_DASH_2,
    eGT_COLON,
    eGT_COLON_2,
    eGT_SEMICOLON,
    eGT_SEMICOLON_2,
    eGT_BACKSLASH,
    eGT_BACKSLASH_2,
    eGT_SLASH,
    eGT_SLASH_2,
    eGT_COMMA,
    eGT_COMMA_2,
    eGT_BACKSLASH_3,
    eGT_BACKSLASH_4,
    eGT_SLASH_3,
    eGT_SLASH_4,
    eGT_TAB,
    eGT_TAB_2,
    eGT_PERIOD,
    eGT_PERIOD_2,
    eGT_QUOTE,
    eGT_QUOTE_2,
    eGT_STAR,
    eGT_STAR_2,
    eGT_CR,
    eGT_CR_2,
    eGT_LF,
    eGT_LF_2,
    eGT_COUNT
};

/// g_aszText[eGT_...] is the text. Every entry has an address of its own.
extern char const g_aszText[eGT_COUNT][4];
