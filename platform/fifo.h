#pragma once

/// @file
/// The reading end of a named FIFO, which has to be read without waiting for ever, neither for a writer
/// to come nor for the bytes. Systems without FIFOs have none: PlatIsFifo is false for every name.

#include "platform/base.h"

/// Whether a FIFO of that name exists.
bool PlatIsFifo(char const *pszName);

/// One reading end; one thread. A writer that goes away ends nothing, the next one is read as well.
class CPlatFifo {
public:
    CPlatFifo() = default;
    ~CPlatFifo() { Close(); }
    CPlatFifo(CPlatFifo const &) = delete;
    CPlatFifo &operator=(CPlatFifo const &) = delete;

    /// @{
    /// Does not wait for a writer. False with GetLastError.
    bool Open(char const *pszName);
    void Close();
    /// @}

    /// Waits dwMilliseconds at most. The number of bytes, 0 when none came in time, -1 on failure.
    int Read(void *pBuffer, DWORD cb, DWORD dwMilliseconds);

private:
    int m_fd = -1;
};
