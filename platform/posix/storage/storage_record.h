#pragma once

#include "platform/storage.h"

#include <string>

// The record that names a file's kind: header with the class, then the user type, the clipboard format
// and the program, first in the old character set and, behind a mark, once more in UTF-16. Texts have
// their length in front, in characters with the terminator; 0 for none.
std::string StorageTypeRecord(CLSID const &clsid, CLIPFORMAT cf, OLECHAR const *pszUserType);
