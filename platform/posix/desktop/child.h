#pragma once

// Processes that we start: how they begin, and what becomes of them.

#include "platform/base.h"
#include "platform/lock.h"
#include "platform/posix/descriptor.h"

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <sys/types.h>
#include <vector>

std::int64_t NowMilliseconds();

std::vector<std::string> OwnEnvironment();

// A process that we started; whoever has to do with it shares it.
class CChild {
public:
    explicit CChild(pid_t pid);
    ~CChild();
    CChild(CChild const &) = delete;
    CChild &operator=(CChild const &) = delete;

    pid_t Number() const { return m_pid; } // its own until somebody has looked at its end
    bool HasEnded();
    // 128 and the signal's number if one ended it.
    DWORD ExitCode();
    DWORD Wait(DWORD dwMilliseconds);

private:
    void Doze(int nMilliseconds);
    bool Look() PLAT_REQUIRES(m_mutex);

    pid_t const m_pid;
    CDescriptor const m_fdProcess; // not open if the kernel has none
    CPlatMutex m_mutex;            // a leaf
    bool m_fEnded PLAT_GUARDED_BY(m_mutex) = false;
    // Stays so if the host waited for the child itself.
    DWORD m_dwExitCode PLAT_GUARDED_BY(m_mutex) = static_cast<DWORD>(-1);
};

struct CStartRecord {
    std::string m_strProgram; // with a slash, or to be looked for on PATH
    std::vector<std::string> m_astrArguments;
    std::vector<std::string> m_astrEnvironment = OwnEnvironment();
    // A group of its own, what it prints to our standard error; else our streams and group.
    bool m_fCommand = false;
    int m_fdInput = -1; // of a command: 3 and above, or -1 for an empty one
};

// Want of memory as an error number: no exception leaves the layer.
template <class F>
DWORD WithMemory(F fn)
{
    try {
        return fn();
    } catch (std::bad_alloc const &) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

// Starts it with no signal blocked or ignored, and with no descriptor but its three streams. 0 or a Win32 error.
DWORD SpawnChild(CStartRecord &start, std::shared_ptr<CChild> &pChild);
