#include "platform/probe.h"

#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

// PlatHandleCount stands beside the table, in handle.cpp.

DWORD PlatThreadCount()
{
    std::filesystem::directory_iterator const itTasks("/proc/self/task");
    return static_cast<DWORD>(std::distance(begin(itTasks), end(itTasks)));
}

PlatMemoryType PlatMemory()
{
    ::malloc_trim(0);
    std::uint64_t cTotal = 0, cResident = 0, cShared = 0; // pages
    std::ifstream("/proc/self/statm") >> cTotal >> cResident >> cShared;
    struct mallinfo2 const heap = ::mallinfo2();
    return {(cResident - cShared) * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)),
            heap.uordblks + heap.hblkhd};
}
