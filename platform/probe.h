#pragma once

#include "platform/base.h"

// What a leak test counts.

/// Live handles: on POSIX those of this copy of the layer, on Windows all of the process.
DWORD PlatHandleCount();

/// Threads of this process, the caller included.
DWORD PlatThreadCount();
