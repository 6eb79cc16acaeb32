#include "platform/common/namelookup.h"
#include "platform/posix/network/socketslot.h"
#include "platform/socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <new>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

// Names and addresses of hosts: the lookups of socket.h.

namespace {

constexpr std::size_t kcbHostName = 256; // bytes, terminator included

// The record that a lookup hands out, with all that it points to. One for each thread.
class CHostAnswer {
public:
    hostent *Fill(std::string strName, std::vector<in_addr> addresses)
    {
        m_strName = std::move(strName);
        m_addresses = std::move(addresses);
        m_addressList.clear();
        for (in_addr &address : m_addresses) {
            m_addressList.push_back(reinterpret_cast<char *>(&address));
        }
        m_addressList.push_back(nullptr);
        m_host = {m_strName.data(), &m_pNoAlias, AF_INET, sizeof(in_addr), m_addressList.data()};
        return &m_host;
    }

private:
    std::string m_strName;
    std::vector<in_addr> m_addresses;
    std::vector<char *> m_addressList;
    char *m_pNoAlias = nullptr;
    hostent m_host{};
};

thread_local CHostAnswer t_answer;

std::nullptr_t FailLookup(int nError)
{
    ws::WSASetLastError(nError);
    return nullptr;
}

int LookupError(int nResult)
{
    return nResult == EAI_AGAIN    ? WSATRY_AGAIN
           : nResult == EAI_FAIL   ? WSANO_RECOVERY
           : nResult == EAI_MEMORY ? WSAENOBUFS
                                   : WSAHOST_NOT_FOUND;
}

std::string OwnName()
{
    char sz[kcbHostName] = {};
    return ::gethostname(sz, sizeof(sz) - 1) == 0 ? sz : "";
}

bool IsOwnName(char const *pszName)
{
    std::string const strOwn = OwnName();
    std::string const strShort = strOwn.substr(0, strOwn.find('.'));
    return strcasecmp(pszName, strOwn.c_str()) == 0 || strcasecmp(pszName, strShort.c_str()) == 0;
}

// The address that a datagram to the rest of the world would leave from; 0 when there is no way out.
// Connecting a datagram socket only looks up the route, nothing is sent.
in_addr_t DefaultRouteAddress()
{
    int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ::htons(9);
    address.sin_addr.s_addr =
        ::htonl(0xCB007101); // an address kept for documentation: no host has it
    socklen_t cb = sizeof(address);
    auto *const pAddress = reinterpret_cast<sockaddr *>(&address);
    bool const bFound = ::connect(fd, pAddress, cb) == 0 && ::getsockname(fd, pAddress, &cb) == 0;
    ::close(fd);
    return bFound ? address.sin_addr.s_addr : 0;
}

enum eRank { eROUTE, eREACHABLE, eUNLIKELY, eLOOPBACK };

// How good an address is for a peer that wants to reach this host.
eRank RankOf(in_addr address, unsigned nInterfaceFlags, in_addr_t nRoute)
{
    if ((nInterfaceFlags & IFF_LOOPBACK) != 0) {
        return eLOOPBACK;
    }
    if (address.s_addr == nRoute) {
        return eROUTE;
    }
    bool const bLinkLocal = ::ntohl(address.s_addr) >> 16 == 0xA9FE; // 169.254.0.0/16
    return bLinkLocal || (nInterfaceFlags & IFF_RUNNING) == 0 ? eUNLIKELY : eREACHABLE;
}

std::vector<in_addr> OwnAddresses()
{
    struct CRanked {
        eRank nRank;
        in_addr address;
    };
    ifaddrs *pList = nullptr;
    if (::getifaddrs(&pList) != 0) {
        return {};
    }
    std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> const list(pList, ::freeifaddrs);
    in_addr_t const nRoute = DefaultRouteAddress();
    std::vector<CRanked> ranked;
    for (ifaddrs const *p = pList; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_INET ||
            (p->ifa_flags & IFF_UP) == 0) {
            continue;
        }
        sockaddr_in address;
        std::memcpy(&address, p->ifa_addr, sizeof(address));
        ranked.push_back({RankOf(address.sin_addr, p->ifa_flags, nRoute), address.sin_addr});
    }
    std::ranges::stable_sort(ranked, {}, &CRanked::nRank);
    std::vector<in_addr> result;
    for (CRanked const &entry : ranked) {
        if (entry.nRank != eLOOPBACK || ranked.front().nRank == eLOOPBACK) {
            result.push_back(entry.address);
        }
    }
    return result;
}

hostent *Resolve(char const *pszName)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo *pList = nullptr;
    int const nResult = ::getaddrinfo(pszName, nullptr, &hints, &pList);
    if (nResult != 0) {
        return FailLookup(LookupError(nResult));
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> const list(pList, ::freeaddrinfo);
    std::string strName = pList->ai_canonname != nullptr ? pList->ai_canonname : pszName;
    std::vector<in_addr> addresses;
    for (addrinfo const *p = pList; p != nullptr; p = p->ai_next) {
        sockaddr_in address;
        std::memcpy(&address, p->ai_addr, sizeof(address));
        addresses.push_back(address.sin_addr);
    }
    return t_answer.Fill(std::move(strName), std::move(addresses));
}

hostent *FindByName(char const *pszName)
{
    bool const bOwn = pszName == nullptr || *pszName == '\0' || IsOwnName(pszName);
    if (!bOwn) {
        return Resolve(pszName);
    }
    std::string strOwn = OwnName();
    std::vector<in_addr> addresses = OwnAddresses();
    return addresses.empty() ? Resolve(strOwn.c_str())
                             : t_answer.Fill(std::move(strOwn), std::move(addresses));
}

CNameCache::CAnswer ResolveName(std::uint32_t dwAddress)
{
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = dwAddress;
    char sz[NI_MAXHOST] = {};
    int const nResult = ::getnameinfo(reinterpret_cast<sockaddr const *>(&from), sizeof(from), sz,
                                      sizeof(sz), nullptr, 0, NI_NAMEREQD);
    if (nResult != 0) {
        return {{}, nResult == EAI_NONAME ? WSANO_DATA : LookupError(nResult)};
    }
    return {sz, 0};
}

hostent *FindByAddress(in_addr address)
{
    static CNameLookup s_lookup(ResolveName,
                                WSATRY_AGAIN); // made for the first lookup, not with the module
    CNameCache::CAnswer answer = s_lookup.Find(address.s_addr);
    return answer.strName.empty() ? FailLookup(answer.nError)
                                  : t_answer.Fill(std::move(answer.strName), {address});
}

} // namespace

namespace ws {

int gethostname(char *pszName, int cbName)
{
    if (!SocketsAreStarted()) {
        return SOCKET_ERROR;
    }
    char sz[kcbHostName] = {};
    bool const bFits = pszName != nullptr && ::gethostname(sz, sizeof(sz) - 1) == 0 &&
                       static_cast<int>(std::strlen(sz)) < cbName;
    if (!bFits) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    std::strcpy(pszName, sz);
    return 0;
}

hostent *gethostbyname(char const *pszName)
{
    if (!SocketsAreStarted()) {
        return nullptr;
    }
    try {
        return FindByName(pszName);
    } catch (std::bad_alloc const &) {
        return FailLookup(WSAENOBUFS);
    }
}

hostent *gethostbyaddr(char const *pAddress, int cbAddress, int nType)
{
    if (!SocketsAreStarted()) {
        return nullptr;
    }
    if (nType != AF_INET) {
        return FailLookup(WSAEAFNOSUPPORT);
    }
    if (pAddress == nullptr || cbAddress < static_cast<int>(sizeof(in_addr))) {
        return FailLookup(WSAEFAULT);
    }
    try {
        in_addr address;
        std::memcpy(&address, pAddress, sizeof(address));
        return FindByAddress(address);
    } catch (std::bad_alloc const &) {
        return FailLookup(WSAENOBUFS);
    }
}

char *inet_ntoa(in_addr address)
{
    thread_local char t_sz[INET_ADDRSTRLEN];
    unsigned char ab[sizeof(address)];
    std::memcpy(ab, &address, sizeof(ab));
    char *psz = t_sz; // by hand: one for every datagram, and printf is slow
    for (unsigned char const b : ab) {
        psz = std::to_chars(psz, std::end(t_sz), b).ptr;
        *psz++ = '.';
    }
    psz[-1] = '\0';
    return t_sz;
}

DWORD inet_addr(char const *pszAddress)
{
    return pszAddress != nullptr ? ::inet_addr(pszAddress) : INADDR_NONE;
}

} // namespace ws
