#pragma once

#include <csignal>

/// While it lives, a call of this thread that would raise SIGPIPE (nobody reads) or SIGXFSZ (a limit of the
/// file size) only fails, with EPIPE or EFBIG. The process keeps the dispositions that its host has chosen,
/// and a signal that was pending before is pending afterwards. Leaves errno alone.
class CWriteSignalGuard {
public:
    CWriteSignalGuard();
    ~CWriteSignalGuard();
    CWriteSignalGuard(CWriteSignalGuard const &) = delete;
    CWriteSignalGuard &operator=(CWriteSignalGuard const &) = delete;

private:
    sigset_t m_ours;   // of the two, what was not pending before
    sigset_t m_before; // the thread's mask
};
