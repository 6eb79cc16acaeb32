#pragma once

/// @file
/// Descriptors that belong to a library, which says what it waits for there and leaves the waiting to its host. POSIX
/// only, as those libraries are here.

#include "platform/base.h"

/// @{
/// What is waited for, and what can be done without waiting; an error or an end shows as both. The bits are those
/// that poll has for it, since libraries tell them.
inline constexpr int kPlatReadable = 1;
inline constexpr int kPlatWritable = 4;
/// @}

/// Waits dwMilliseconds at most for the descriptor (-1: for none) to be what nWanted says, or for the readiness
/// (platform/readiness.h) to be set. *pfSet tells whether that is so. What the descriptor is ready for, 0 when the
/// time was up or a signal came.
int PlatDescriptorWait(int nDescriptor, int nWanted, LONG_PTR nReadiness, bool *pfSet,
                       DWORD dwMilliseconds);

/// What comes next at the TCP socket is acknowledged at once, and does not wait 40 ms for something to go back with
/// it: some peers hold back all that follows until then.
void PlatDescriptorAckAtOnce(int nDescriptor);
