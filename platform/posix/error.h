#pragma once

#include "platform/base.h"

/// The Win32 error number for an errno value; 0 for 0, ERROR_GEN_FAILURE for what has no counterpart.
/// The only translation there is: nobody maps inline.
DWORD PlatErrorFromErrno(int nErrno);

/// SetLastError of the current errno's translation. For the return of a failed call:
/// `return PlatFailErrno(), FALSE;`
void PlatFailErrno();
