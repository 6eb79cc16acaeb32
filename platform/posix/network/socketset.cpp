#include "platform/socketset.h"

#include "platform/posix/network/socketslot.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kWakeKey = ~std::uint64_t{0};
constexpr std::size_t kMostEvents = 64; // taken at once

} // namespace

// The kernel keeps the set, and forgets a socket by itself when it is closed.
class CPlatSocketSetImpl {
public:
    CPlatSocketSetImpl()
        : m_fdSet(::epoll_create1(EPOLL_CLOEXEC)),
          m_fdWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (m_fdSet < 0 || m_fdWake < 0 || !Control(EPOLL_CTL_ADD, m_fdWake, kWakeKey, EPOLLIN)) {
            SocketFail(SocketErrorOf(errno));
        } else {
            m_bGood = true;
        }
    }
    ~CPlatSocketSetImpl()
    {
        ::close(m_fdSet);
        ::close(m_fdWake);
    }
    CPlatSocketSetImpl(CPlatSocketSetImpl const &) = delete;
    CPlatSocketSetImpl &operator=(CPlatSocketSetImpl const &) = delete;

    bool Control(int nWhat, int fd, std::uint64_t qwKey, std::uint32_t dwEvents)
    {
        epoll_event event{};
        event.events = dwEvents;
        event.data.u64 = qwKey;
        return ::epoll_ctl(m_fdSet, nWhat, fd, &event) == 0;
    }

    bool ControlSocket(int nWhat, SOCKET s, std::uint64_t qwKey, std::uint32_t dwEvents)
    {
        CSocketUse const use(s);
        if (!use) {
            return false;
        }
        return Control(nWhat, use->fd, qwKey, dwEvents) || SocketFailAs(*use, errno) == 0;
    }

    int const m_fdSet;
    int const m_fdWake;
    bool m_bGood = false;
};

void PlatRaiseSocketLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        // No more than the layer can use: programs that close all they might have would be at it for long.
        limit.rlim_cur =
            std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, kMaxSockets + 256));
        static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
    }
}

CPlatSocketSet::CPlatSocketSet() : m_pImpl(std::make_unique<CPlatSocketSetImpl>()) {}

CPlatSocketSet::~CPlatSocketSet() = default;

bool CPlatSocketSet::IsGood() const
{
    return m_pImpl->m_bGood;
}

bool CPlatSocketSet::Add(SOCKET s, std::uint64_t qwKey)
{
    return m_pImpl->ControlSocket(EPOLL_CTL_ADD, s, qwKey, EPOLLIN);
}

bool CPlatSocketSet::Change(SOCKET s, std::uint64_t qwKey, bool bRead, bool bWrite)
{
    std::uint32_t const dwEvents = (bRead ? EPOLLIN : 0u) | (bWrite ? EPOLLOUT : 0u);
    return m_pImpl->ControlSocket(EPOLL_CTL_MOD, s, qwKey, dwEvents);
}

void CPlatSocketSet::Remove(SOCKET s)
{
    static_cast<void>(m_pImpl->ControlSocket(EPOLL_CTL_DEL, s, 0, 0)); // it may not be there
}

std::size_t CPlatSocketSet::Wait(Ready *pReady, std::size_t cMost, DWORD dwMilliseconds)
{
    std::array<epoll_event, kMostEvents> events;
    int const nLimit = dwMilliseconds == INFINITE
                           ? -1
                           : static_cast<int>(std::min<DWORD>(dwMilliseconds, 0x7FFFFFFF));
    int const c = ::epoll_wait(m_pImpl->m_fdSet, events.data(),
                               static_cast<int>(std::min(cMost, events.size())), nLimit);
    std::size_t cReady = 0;
    for (int i = 0; i < c; ++i) {
        epoll_event const &event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == kWakeKey) {
            std::uint64_t qw = 0;
            static_cast<void>(!::read(m_pImpl->m_fdWake, &qw, sizeof(qw)));
            continue;
        }
        bool const bBroken = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
        pReady[cReady++] = {event.data.u64, bBroken || (event.events & EPOLLIN) != 0,
                            (event.events & EPOLLOUT) != 0};
    }
    return cReady;
}

void CPlatSocketSet::Wake()
{
    std::uint64_t const qw = 1;
    static_cast<void>(!::write(m_pImpl->m_fdWake, &qw, sizeof(qw)));
}
