#pragma once

// The files of web/pages, as the build put them into the program.

#include <cstddef>

/// One file.
struct WebPage {
    char const *pszName;        ///< without a folder
    unsigned char const *pData; ///< its bytes
    std::size_t cb;             ///< how many
};

/// All of them, in the order of their names.
extern WebPage const g_webPages[];
/// How many there are.
extern std::size_t const g_cWebPages;
