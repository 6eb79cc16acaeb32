#pragma once

#include "platform/base.h"

/// Reads the process's standard input without having to wait for it for ever; one thread. Waits
/// dwMilliseconds at most. The number of bytes, 0 when none came in time, -1 at its end.
/// While the program is in its shell's background nothing comes from the terminal.
/// On Windows a read from a console, once begun, waits for the end of the line.
int PlatReadInput(void *pBuffer, DWORD cb, DWORD dwMilliseconds);
