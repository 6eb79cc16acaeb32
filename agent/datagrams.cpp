// Notifications over a network: the agent's UDP socket, the loop that reads it, the filter for
// repeated datagrams.
//
// A datagram is narrow text of at most 349 bytes, from any sender. It goes back to where it came from
// before anybody looks into it, since a device sends it again until it has seen that echo; what was
// sent again is told by the clause "KICKSEQ=" number ";", anywhere in the text.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "agent/callback_qthread.h"
#include "agent/datagram_qthread.h"
#include "agent/QOMANoAg.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "platform/afx.h"
#include "platform/runtime.h"

namespace {

constexpr DWORD kRequestPriority = 5;
constexpr WORD kWinSockVersion = 257; // 1.1
constexpr DWORD kGeneralFailure = 0x80004005;

// The sizes of the text areas of a callback message, so that nothing is cut on the way there.
constexpr std::size_t kcbText = sizeof CallbackMsgType::szOption;
constexpr std::size_t kcbSenderAddress = sizeof CallbackMsgType::szSenderAddress;
constexpr std::size_t kcbSenderName = sizeof CallbackMsgType::szSenderName;
constexpr int kcbReceive = static_cast<int>(kcbText) - 1; // the text always ends in a zero

constexpr char kKickSeqKey[] = "KICKSEQ=";

using Buffer = std::unique_ptr<char[]>;

Buffer NewBuffer(std::size_t cb)
{
    return Buffer(new (std::nothrow) char[cb]);
}

// Of all that close an agent's socket, on whatever thread, the one that gets it here does it.
void DropSocket(std::atomic<SOCKET> &socket, std::atomic<WORD> &wPort)
{
    SOCKET const s = socket.exchange(INVALID_SOCKET);
    if (s != INVALID_SOCKET) {
        ws::closesocket(s);
        wPort = 0;
    }
}

// Stores the address of pEntry's first interface as dotted text.
void StoreFirstAddress(hostent const *pEntry, CString &strAddress)
{
    if (pEntry == nullptr || pEntry->h_addr_list[0] == nullptr) {
        return;
    }
    unsigned char ab[4];
    std::memcpy(ab, pEntry->h_addr_list[0], sizeof ab);
    char szAddress[kcbSenderAddress];
    std::snprintf(szAddress, sizeof szAddress, "%d.%d.%d.%d", ab[0], ab[1], ab[2], ab[3]);
    strAddress = szAddress;
}

// The sender's name, cut to its buffer; it stays empty for a sender without one.
void FindSenderName(sockaddr_in const &from, char *pszName)
{
    auto const *const pAddress = reinterpret_cast<char const *>(&from.sin_addr);
    hostent const *const pEntry = ws::gethostbyaddr(pAddress, 4, AF_INET);
    if (pEntry != nullptr && pEntry->h_name != nullptr) {
        lstrcpynA(pszName, pEntry->h_name, static_cast<int>(kcbSenderName));
    }
}

// Whether a datagram claims to come from our own port on one of this host's addresses, as nothing but an echo
// to ourselves does: to answer it would never end. Only this host's addresses can be bound.
bool IsOurOwn(sockaddr_in from, WORD wPort)
{
    if (from.sin_port != ws::htons(wPort)) {
        return false;
    }
    SOCKET const s = ws::socket(AF_INET, SOCK_DGRAM, 0);
    from.sin_port = 0;
    bool const bOurs = ws::bind(s, reinterpret_cast<sockaddr *>(&from), sizeof from) == 0;
    ws::closesocket(s);
    return bOurs;
}

bool IsBlank(char ch)
{
    return ch == ' ' || (ch >= '\t' && ch <= '\r');
}

// As atoi, but a number that is out of range, which anybody may send, becomes the nearest one.
int NumberOf(char const *pszText)
{
    while (IsBlank(*pszText)) {
        ++pszText;
    }
    bool const bNegative = *pszText == '-';
    if (*pszText == '-' || *pszText == '+') {
        ++pszText;
    }
    std::int64_t const nLimit = bNegative ? -static_cast<std::int64_t>(INT_MIN) : INT_MAX;
    std::int64_t nValue = 0;
    for (; *pszText >= '0' && *pszText <= '9' && nValue < nLimit; ++pszText) {
        nValue = nValue * 10 + (*pszText - '0');
    }
    nValue = nValue > nLimit ? nLimit : nValue;
    return static_cast<int>(bNegative ? -nValue : nValue);
}

} // namespace

CDatagramQThread::CDatagramQThread(CNotifyAgent *pAgent, char const *pszName, LONG eKind,
                                   LONG nPriorityClass, LONG nPriority, DWORD)
    : CGQThread(pszName, eKind, nPriorityClass, nPriority, 0), m_pAgent(pAgent)
{
    G_REPORT(eEB_ENTRY, eEC_NONE, eEL_TRACE, "CDatagramQThread: Entry");
    G_REPORT(eEB_EXIT, eEC_NONE, eEL_TRACE, "CDatagramQThread: Exit");
}

CDatagramQThread::~CDatagramQThread()
{
    G_REPORT(eEB_ENTRY, eEC_NONE, eEL_TRACE, "~CDatagramQThread: Entry");
    EndWorker();
    G_REPORT(eEB_EXIT, eEC_NONE, eEL_TRACE, "~CDatagramQThread: Exit");
}

DWORD CDatagramQThread::PostRequest(DatagramRequestType eType, CNotifyAgent *pAgent)
{
    void *const pBlock = ::operator new(sizeof(DatagramMsgType), std::nothrow);
    if (pBlock == nullptr) {
        return 0;
    }
    INC_MEMSUM_COUNTER(eEC_NONE, sizeof(DatagramMsgType), __LINE__, __FILE__);
    auto *pMsg = new (pBlock) DatagramMsgType{};
    pMsg->eType = eType;
    pMsg->pAgent = pAgent;
    char const *const pszName =
        eType == eDT_RECEIVE_DATAGRAMS ? "eDT_RECEIVE_DATAGRAMS" : g_aszText[eGT_EMPTY_DEFAULT];
    bool bTaken = false;
    Post(pszName, pMsg, sizeof *pMsg, kRequestPriority, &bTaken);
    if (!bTaken) {
        GMemFree(&pMsg, sizeof *pMsg, __LINE__, __FILE__);
    }
    return 0;
}

DWORD CDatagramQThread::ProcessEntry(CNode *pNode, CGQThread *, DWORD)
{
    auto const *const pMsg = static_cast<DatagramMsgType const *>(pNode->m_pData);
    if (pMsg == nullptr || pMsg->eType != eDT_RECEIVE_DATAGRAMS) {
        return 0;
    }
    try {
        pMsg->pAgent->ReceiveDatagrams();
    } catch (std::bad_alloc const &) {
        // The listener ends, as after a failed receive; nobody is told.
        DropSocket(pMsg->pAgent->m_socket, pMsg->pAgent->m_wPort);
    }
    return 0;
}

DWORD CNotifyAgent::StartupWinSock()
{
    if (m_bWinSockStarted) {
        return NO_ERROR;
    }
    WSADATA data{};
    m_bWinSockStarted = ws::WSAStartup(kWinSockVersion, &data) == 0 ? 1 : 0;
    char szHostName[256] = {};
    if (!m_bWinSockStarted || ws::gethostname(szHostName, sizeof szHostName) != 0) {
        return NO_ERROR;
    }
    szHostName[sizeof szHostName - 1] = '\0';
    m_strHostName = szHostName;
    StoreFirstAddress(ws::gethostbyname(szHostName), m_strHostAddress);
    return NO_ERROR;
}

DWORD CNotifyAgent::ShutdownWinSock()
{
    if (m_bWinSockStarted) {
        (void)ws::WSACleanup(); // nothing can be done about a failure
        m_bWinSockStarted = 0;
    }
    return NO_ERROR;
}

// The first failure ends it; a socket that could not be bound stays for CloseSocket.
DWORD CNotifyAgent::CreateSocket()
{
    SOCKET const s = ws::socket(AF_INET, SOCK_DGRAM, 0);
    m_socket = s;
    if (s == INVALID_SOCKET) {
        return kGeneralFailure;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ws::htons(m_wPort); // 0: the system chooses
    auto *const pAddress = reinterpret_cast<sockaddr *>(&address);
    if (ws::bind(s, pAddress, sizeof address) == SOCKET_ERROR) {
        return kGeneralFailure;
    }
    if (m_wPort == 0) {
        int cbAddress = sizeof address;
        if (ws::getsockname(s, pAddress, &cbAddress) == SOCKET_ERROR) {
            return kGeneralFailure;
        }
        m_wPort = ws::ntohs(address.sin_port);
    }
    return NO_ERROR;
}

DWORD CNotifyAgent::CloseSocket()
{
    if (m_pDatagramQThread != nullptr) {
        m_bStopDatagrams = 1; // before the close, so that the loop knows why its receive ended
        DropSocket(m_socket, m_wPort);
    }
    return NO_ERROR;
}

DWORD CNotifyAgent::ReceiveDatagrams()
{
    Buffer const pszText = NewBuffer(kcbText);
    Buffer const pszSenderAddress = NewBuffer(kcbSenderAddress);
    Buffer const pszSenderName = NewBuffer(kcbSenderName);
    if (pszText == nullptr || pszSenderAddress == nullptr || pszSenderName == nullptr) {
        AfxThrowMemoryException();
    }
    DWORD dwSequence = 0; // a datagram without a number is judged by the one before it
    while (!m_bStopDatagrams) {
        std::memset(pszText.get(), 0, kcbText);
        std::memset(pszSenderAddress.get(), 0, kcbSenderAddress);
        std::memset(pszSenderName.get(), 0, kcbSenderName);
        sockaddr_in from{};
        auto *const pFrom = reinterpret_cast<sockaddr *>(&from);
        int cbFrom = sizeof from;
        SOCKET const s = m_socket;
        int const cbReceived = ws::recvfrom(s, pszText.get(), kcbReceive, 0, pFrom, &cbFrom);
        if (m_bStopDatagrams) {
            break;
        }
        if (cbReceived <= 0) { // a failure, or an empty datagram
            DropSocket(m_socket, m_wPort);
            break;
        }
        if (!IsOurOwn(from, m_wPort)) {
            ws::sendto(s, pszText.get(), cbReceived, 0, pFrom, cbFrom);
        }
        GetKickSeq(pszText.get(), &dwSequence);
        DWORD const dwLastKickSeq = m_dwLastKickSeq;
        if (dwLastKickSeq != 0 && dwLastKickSeq >= dwSequence) {
            continue;
        }
        lstrcpynA(pszSenderAddress.get(), ws::inet_ntoa(from.sin_addr),
                  static_cast<int>(kcbSenderAddress));
        FindSenderName(from, pszSenderName.get());
        CCallbackQThread::PostTo(m_pCallbackQThread, eCT_SELECT_NOTIFY, 0, 0, pszText.get(),
                                 pszSenderAddress.get(), pszSenderName.get());
        m_dwLastKickSeq = dwSequence;
    }
    return NO_ERROR;
}

DWORD CNotifyAgent::GetKickSeq(char *pszText, DWORD *pdwSequence)
{
    if (pszText == nullptr || pdwSequence == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    auto const Free = [](char *psz) { std::free(psz); };
    std::unique_ptr<char, decltype(Free)> const pszCopy(_strdup(pszText), Free);
    if (pszCopy == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    char *const pszKey = std::strstr(pszCopy.get(), kKickSeqKey);
    if (pszKey == nullptr) {
        return ERROR_NOT_SUPPORTED;
    }
    auto *const pszNumber = reinterpret_cast<unsigned char *>(pszKey + sizeof kKickSeqKey - 1);
    auto const *const pszSeparator =
        reinterpret_cast<unsigned char const *>(g_aszText[eGT_SEMICOLON_2]);
    unsigned char *const pszEnd = _mbsstr(pszNumber, pszSeparator);
    if (pszEnd != nullptr) {
        *pszEnd = '\0';
        *pdwSequence = static_cast<DWORD>(NumberOf(reinterpret_cast<char *>(pszNumber)));
    }
    return NO_ERROR;
}
