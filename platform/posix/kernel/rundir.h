#pragma once

#include "platform/base.h"
#include <string>

/// The directory in which the processes of one user find what they share: named objects, share modes and
/// sockets. Mode 0700, owned by the effective user; what is found there otherwise is not used. The place
/// does not hang on the environment, so that a session, a service and a timed job of one user meet.
///
/// strDir: out, the path with no slash at its end; untouched on failure.
/// Returns 0, or a Win32 error: ERROR_ACCESS_DENIED when no place is ours. Any thread.
DWORD PlatRunDir(std::string &strDir);

/// The places that PlatRunDir tries, one by one: nPlace below kcRunDirs, the best first. For what is to go
/// to the next place when there is no room in one. True when it is ours; fMake: it is made if nothing of
/// that name is there. Needs no memory. Any thread.
inline constexpr unsigned kcRunDirs = 2;
using RunDirText = char[64]; ///< a path with no slash at its end
bool PlatRunDirAt(unsigned nPlace, bool fMake, RunDirText &szDir);

/// A name made fit for one file name of at most 200 bytes: letters, digits, '.', '-' and '_' as they
/// are, the rest as %XX; a text that gets too long is cut and told apart by a hash at its end. Never
/// empty for a non-empty text, never begins with a dot.
std::string PlatFileNameFor(char const *pszText);
