#pragma once

/// @file
/// Small text helpers of the event manager's own sources. No allocation failure leaves a text that its
/// readers would have to test for: a replacement keeps the old text, and GTextOf reads null as empty.

#include "foundation/g_os.h"
#include "foundation/g_string.h"
#include "platform/base.h"

#include <initializer_list>

/// Bytes of the scratch buffers for registry paths and registry texts.
inline constexpr DWORD kcbRegText = 1024;

/// Replaces the text by the pieces, joined. @return false when there is no memory; the old text stays.
bool GTextJoin(CGString &str, std::initializer_list<char const *> pieces);

/// Whether there is a key below HKEY_LOCAL_MACHINE that can be read.
bool GRegHasKey(char const *pszKey);

/// Reads a text value below HKEY_LOCAL_MACHINE. @param pszKey, pszName key and value. @param pszValue buffer of kcbRegText bytes; on success
/// it ends in a terminator whatever the registry held, on failure its contents are undefined.
bool GRegQueryText(char const *pszKey, char const *pszName, char *pszValue);

/// Reads a word or mask straight into its place, which stays as it was when the value is missing.
/// A value that is narrower fills the low bytes, a wider one counts as missing.
template <class T>
bool GRegQueryNumber(char const *pszKey, char const *pszName, T &value)
{
    DWORD cb = sizeof(value);
    return GRegQueryValue(pszKey, pszName, reinterpret_cast<BYTE *>(&value), &cb) == 0;
}
