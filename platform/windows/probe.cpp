#include "platform/probe.h"

#include <psapi.h>
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
         fMore = Thread32Next(hSnapshot, &entry)) {
        cThreads += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(hSnapshot);
    return cThreads;
}

PlatMemoryType PlatMemory()
{
    HeapCompact(GetProcessHeap(), 0);
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return {counters.PagefileUsage, 0};
}
