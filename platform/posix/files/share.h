#pragma once

#include "platform/base.h"

/// Share modes: who of this user's processes has a file open for what, and what they forbid each other
/// meanwhile. Any thread.

/// States for fd, a regular file that has just been opened, what CreateFileA was asked for, unless the
/// statement of somebody who has the file open forbids it. 0, ERROR_SHARING_VIOLATION, or what is
/// missing for it (ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY). Without a run directory nothing
/// is stated and nobody refused: 0.
DWORD PlatTakeShare(int fd, DWORD dwAccess, DWORD dwShare);

/// Takes the statement back, before fd is closed. Of a descriptor without one: nothing. Leaves errno alone.
void PlatDropShare(int fd);
