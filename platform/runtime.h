#pragma once

/// @file
/// Calls of the C runtime that the system uses under their Win32 names. Those that would collide
/// with the C library of another system stand in `crt`.

#include "platform/base.h"

#ifdef _WIN32

#include <mbstring.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timeb.h>
#include <sys/types.h>

namespace crt {
using ::rand;
using ::srand;
} // namespace crt

#else

#include <ctime>

inline constexpr int _MAX_PATH = 260;  ///< bytes, terminator included
inline constexpr int _MAX_DRIVE = 3;   ///< bytes, terminator included
inline constexpr int _MAX_DIR = 256;   ///< bytes, terminator included
inline constexpr int _MAX_FNAME = 256; ///< bytes, terminator included
inline constexpr int _MAX_EXT = 256;   ///< bytes, terminator included

namespace crt {

/// @{
/// As Win32 (0 to 32767, the same sequence for the same seed), except: the sequence belongs to the
/// process, not to the calling thread, so that one `srand` at the start serves all threads. Any
/// thread.
int rand();
void srand(unsigned seed);
/// @}

} // namespace crt

// The multi-byte text calls. As Win32, except: the encoding is always UTF-8, whatever the locale. A
// byte that does not belong to a well-formed character counts as a character of its own and has no
// case.

/// @{
/// First place in pszText where pszSought begins at the boundary of a character, or null. An empty
/// pszSought is found at once.
unsigned char const *_mbsstr(unsigned char const *pszText, unsigned char const *pszSought);
unsigned char *_mbsstr(unsigned char *pszText, unsigned char const *pszSought);
/// @}

/// Lower-cases pszText in place and returns it. A character whose lower case takes another number of
/// bytes stays as it is.
unsigned char *_mbslwr(unsigned char *pszText);

/// The upper case of one character: a single byte, or the bytes of one character packed with the
/// first one in the highest place. What has no upper case of the same number of bytes comes back
/// unchanged; so text can be run through it byte by byte, which changes its ASCII letters only.
unsigned int _mbctoupper(unsigned int ch);

/// A copy of psz in memory of `malloc`, which the caller frees; null when there is no memory or psz
/// is null.
char *_strdup(char const *psz);

/// As Win32: text of nValue in pszOut (at most 33 bytes) for a radix of 2 to 36; only radix 10 is
/// signed. Returns pszOut. Another radix gives the empty text.
char *_itoa(int nValue, char *pszOut, int nRadix);

/// As Win32: each part may be null when it is not wanted; a longer part is cut to its _MAX_... size.
/// Both '/' and '\\' separate folders.
void _splitpath(char const *pszPath, char *pszDrive, char *pszDir, char *pszName, char *pszExt);

/// As Win32, except: `timezone` and `dstflag` are always 0.
struct _timeb {
    std::time_t time;       ///< seconds since 1970
    unsigned short millitm; ///< milliseconds, 0 to 999
    short timezone;
    short dstflag;
};
void _ftime(struct _timeb *pTime);

/// @{
/// As Win32: copies psz, cut to cchMax - 1 bytes and always terminated; the copy is pszOut itself.
/// Null when an argument is null or cchMax is below 1; nothing is written then.
char *lstrcpynA(char *pszOut, char const *psz, int cchMax);
char *lstrcpyA(char *pszOut, char const *psz);
/// @}

#endif
