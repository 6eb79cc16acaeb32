#include "foundation/g_text.h"

// Rows of 4 bytes, so that the table's alignment makes every row fit for a wide character.
alignas(wchar_t) char const g_aszText[eGT_COUNT][4] = {
    "",     "",     "", // the three empty strings
    "(",    "(",    ")",  ")",  "[",  "[",  "]", "]", "{",  "{",  "}", "}", // brackets
    "\r\n", "\r\n", "=",  "=",  "|",  "|",  " ", " ", "-",  "-",            //
    ":",    ":",    ";",  ";",  "\\", "\\", "/", "/", ",",  ",",            //
    "\\",   "\\",   "/",  "/",  "\t", "\t", ".", ".", "\"", "\"",           //
    "*",    "*",    "\r", "\r", "\n", "\n",
};

static_assert(eGT_COUNT == 51);
static_assert(sizeof(wchar_t) <= sizeof(g_aszText[0]));
