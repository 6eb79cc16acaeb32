#include "platform/socketset.h"

#include "platform/lock.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

// A change by another thread ends the wait by way of the waking socket.
SOCKET MakeWakeSocket()
{
    SOCKET const s = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    int cb = sizeof(sa);
    auto *const pAddress = reinterpret_cast<sockaddr *>(&sa);
    u_long nNonBlocking = 1;
    // Connected to itself, so that nobody else's datagrams come.
    if (s != INVALID_SOCKET &&
        (::bind(s, pAddress, cb) != 0 || ::getsockname(s, pAddress, &cb) != 0 ||
         ::connect(s, pAddress, cb) != 0 ||
         ::ioctlsocket(s, static_cast<long>(FIONBIO), &nNonBlocking) != 0)) {
        ::closesocket(s);
        return INVALID_SOCKET;
    }
    return s;
}

} // namespace

class CPlatSocketSetImpl {
public:
    struct Member {
        std::uint64_t qwKey;
        SHORT nEvents;
    };

    CPlatSocketSetImpl() : m_wake(MakeWakeSocket()) {}
    ~CPlatSocketSetImpl() { ::closesocket(m_wake); }
    CPlatSocketSetImpl(CPlatSocketSetImpl const &) = delete;
    CPlatSocketSetImpl &operator=(CPlatSocketSetImpl const &) = delete;

    void Set(SOCKET s, Member const &member)
    {
        CPlatGuard const lock(m_mx);
        m_members[s] = member;
    }

    SOCKET const m_wake;
    CPlatMutex m_mx; // a leaf
    std::map<SOCKET, Member> m_members PLAT_GUARDED_BY(m_mx);
};

void PlatRaiseSocketLimit() {} // there is none

CPlatSocketSet::CPlatSocketSet() : m_pImpl(std::make_unique<CPlatSocketSetImpl>()) {}

CPlatSocketSet::~CPlatSocketSet() = default;

bool CPlatSocketSet::IsGood() const
{
    return m_pImpl->m_wake != INVALID_SOCKET;
}

bool CPlatSocketSet::Add(SOCKET s, std::uint64_t qwKey)
{
    return Change(s, qwKey, /*bRead=*/true, /*bWrite=*/false);
}

bool CPlatSocketSet::Change(SOCKET s, std::uint64_t qwKey, bool bRead, bool bWrite)
{
    auto const nEvents = static_cast<SHORT>((bRead ? POLLRDNORM : 0) | (bWrite ? POLLWRNORM : 0));
    m_pImpl->Set(s, {qwKey, nEvents});
    Wake();
    return true;
}

void CPlatSocketSet::Remove(SOCKET s)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_members.erase(s);
}

std::size_t CPlatSocketSet::Wait(Ready *pReady, std::size_t cMost, DWORD dwMilliseconds)
{
    std::vector<WSAPOLLFD> polled{{m_pImpl->m_wake, POLLRDNORM, 0}};
    std::vector<std::uint64_t> keys{0};
    {
        CPlatGuard const lock(m_pImpl->m_mx);
        for (auto const &[s, member] : m_pImpl->m_members) {
            if (member.nEvents != 0) {
                polled.push_back({s, member.nEvents, 0});
                keys.push_back(member.qwKey);
            }
        }
    }
    INT const nLimit = dwMilliseconds == INFINITE
                           ? -1
                           : static_cast<INT>(std::min<DWORD>(dwMilliseconds, 0x7FFFFFFF));
    if (::WSAPoll(polled.data(), static_cast<ULONG>(polled.size()), nLimit) <= 0) {
        return 0;
    }
    char piece[16];
    while (::recv(m_pImpl->m_wake, piece, sizeof(piece), 0) > 0) {
    }
    std::size_t cReady = 0;
    for (std::size_t i = 1; i < polled.size() && cReady < cMost; ++i) {
        SHORT const nEvents = polled[i].revents;
        bool const bBroken = (nEvents & (POLLERR | POLLHUP)) != 0;
        if (nEvents != 0 && (nEvents & POLLNVAL) == 0) {
            pReady[cReady++] = {keys[i], bBroken || (nEvents & POLLRDNORM) != 0,
                                (nEvents & POLLWRNORM) != 0};
        }
    }
    return cReady;
}

void CPlatSocketSet::Wake()
{
    static_cast<void>(::send(m_pImpl->m_wake, "", 1, 0));
}
