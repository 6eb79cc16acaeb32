#include "platform/probe.h"

#include <filesystem>

// PlatHandleCount stands beside the table, in handle.cpp.

DWORD PlatThreadCount()
{
    std::filesystem::directory_iterator const itTasks("/proc/self/task");
    return static_cast<DWORD>(std::distance(begin(itTasks), end(itTasks)));
}
