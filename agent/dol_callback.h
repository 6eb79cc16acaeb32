#pragma once
/// @file
/// How the access library calls the agent.
#include "platform/base.h"

/// What the agent gives to CDolRtl's constructor, with its own address as the context. Event 0
/// (eDE_TRAP_PENDING) drains the traps, event 1 (eDE_RESTART_LINK) restarts the link; anything else, and
/// a context of 0, does nothing. Runs on a thread of the library's and lets no exception out: what could
/// not be read for want of memory waits for the next event. Always 0.
DWORD DolRtlCallback(DWORD dwEvent, DWORD_PTR dwContext);

/// Whether this thread is inside DolRtlCallback.
bool InDolRtlCallback();
