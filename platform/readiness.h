#pragma once

#include "platform/base.h"

// Something that a program which waits for many things at once can have among them: a descriptor that is
// readable while it is set (POSIX), or the handle of a manual-reset event (Windows).

/// A new one, not set; -1 with the last error: ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY.
LONG_PTR PlatReadinessOpen();

/// Sets it or takes that back, for a change only: one caller at a time, and not to what it is already.
void PlatReadinessSet(LONG_PTR nReadiness, bool fReady);

/// Ends it; -1 is passed over.
void PlatReadinessClose(LONG_PTR nReadiness);
