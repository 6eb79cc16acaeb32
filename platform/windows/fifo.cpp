#include "platform/fifo.h"

#include "platform/input.h"

bool PlatIsFifo(char const *)
{
    return false;
}

bool CPlatFifo::Open(char const *)
{
    SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

void CPlatFifo::Close()
{
    m_fd = -1;
}

int CPlatFifo::Read(void *, DWORD, DWORD)
{
    return m_fd;
}

int PlatReadInput(void *pBuffer, DWORD cb, DWORD dwMilliseconds)
{
    HANDLE const hInput = GetStdHandle(STD_INPUT_HANDLE);
    // A pipe cannot be waited on; it has to be asked.
    if (GetFileType(hInput) == FILE_TYPE_PIPE) {
        ULONGLONG const ullDeadline = GetTickCount64() + dwMilliseconds;
        DWORD cbWaiting = 0;
        while (PeekNamedPipe(hInput, nullptr, 0, nullptr, &cbWaiting, nullptr) && cbWaiting == 0) {
            if (GetTickCount64() >= ullDeadline) {
                return 0;
            }
            Sleep(10);
        }
    }
    DWORD cbRead = 0;
    if (!ReadFile(hInput, pBuffer, cb, &cbRead, nullptr) || cbRead == 0) {
        return -1;
    }
    return static_cast<int>(cbRead);
}
