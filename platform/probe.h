#pragma once

#include "platform/base.h"

#include <cstdint>

// What a leak test counts.

/// Live handles: on POSIX those of this copy of the layer, on Windows all of the process.
DWORD PlatHandleCount();

/// Threads of this process, the caller included.
DWORD PlatThreadCount();

/// In bytes.
struct PlatMemoryType {
    std::uint64_t cbHeld =
        0; ///< memory of this process for its data, once its heap has given back what it can
    std::uint64_t cbInUse =
        0; ///< what the heap has handed out of it; 0 where the runtime does not tell
};

/// How much memory this process has. Takes milliseconds.
PlatMemoryType PlatMemory();
