#include "platform/probe.h"

#include <tlhelp32.h>

DWORD PlatHandleCount()
{
    DWORD cHandles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &cHandles);
    return cHandles;
}

DWORD PlatThreadCount()
{
    HANDLE const hSnapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    DWORD cThreads = 0;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL fMore = Thread32First(hSnapshot, &entry); fMore;
         fMore = Thread32Next(hSnapshot, &entry))
        cThreads += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(hSnapshot);
    return cThreads;
}
