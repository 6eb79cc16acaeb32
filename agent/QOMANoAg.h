#pragma once
/// @file
/// QOMANoAg: notifications from a multifunction peripheral.
///
/// A client makes one CNotifyAgent per device, connects it with Init, subscribes with Add, and hears
/// on its own callback what happens at that device:
///
///     CNotifyAgent agent(OnNotify, 7);
///     if (agent.Init("192.168.1.20", kNotifyNoPort, 1) == NO_ERROR) {
///         DWORD dwInstance = 0;
///         agent.Add(&dwInstance, eNF_SELECT, "Paper Archive");
///         ...
///         agent.Delete(dwInstance, eNF_SELECT, "Paper Archive");
///         agent.Shutdown();
///     }
///
/// Order of calls: constructor; Init; any number of Add, Delete, Modify and InitiateSrvQDiscovery;
/// Shutdown; destructor. Init may follow Shutdown again.
///
/// Threads. Any thread may call any operation, except as said at each. Init, Shutdown, Add, Delete,
/// Modify and InitiateSrvQDiscovery run one at a time, in the order in which they were called, under a
/// recursive mutex of the agent.
///
/// The callback runs on a thread of the agent's own, one call at a time, in the order of the events,
/// with no lock of the agent held. It may call Add, Delete, Modify and InitiateSrvQDiscovery, those of
/// other agents, too. (Shutdown, which also the library can bring about when it asks for a restart of the
/// link, holds the mutex while it waits for the callback; an operation of that agent that any callback
/// calls meanwhile returns 2250 or 1307 at once.) The callback must not let an exception out, and must not
/// destroy the agent.
///
/// Results. Every operation returns 0, a system error number out of the list below, or a code of the
/// access library's (see QOMADolC.h), passed on unchanged. No operation throws, except that
/// ReadTraps raises a memory exception when there is no memory for its buffer.
///
///     0     NO_ERROR                    done
///     8     ERROR_NOT_ENOUGH_MEMORY     an allocation failed
///     29    ERROR_WRITE_FAULT           the discovery job could not be written whole
///     50    ERROR_NOT_SUPPORTED         there is no such notification over a network; ReadTraps: a
///                                       trap of an unknown number was read; Shutdown, RestartDolRtl:
///                                       called by the callback, which they would have to wait for
///     51    ERROR_REM_NOT_LIST          Delete of what is not subscribed
///     87    ERROR_INVALID_PARAMETER     a null or empty argument, or no known flag
///     110   ERROR_OPEN_FAILED           the target of the discovery job could not be opened
///     1247  ERROR_ALREADY_INITIALIZED   Init on a connected agent
///     1307  ERROR_INVALID_OWNER         the device was refused: it is of another product line
///     2250  ERROR_NOT_CONNECTED         the agent has no link to a device
#include <atomic>
#include <cstdint>
#include <type_traits>

#include "platform/base.h"
#include "platform/cstring.h"
#include "platform/export.h"
#include "platform/socket.h"

#ifdef QOMANOAG_BUILD
#define QOMANOAG_API PLAT_EXPORT
#else
#define QOMANOAG_API
#endif

class CCallbackQThread;
class CDatagramQThread;
class CDolRtl;

/// What a notification is about: the callback's first argument.
enum CallbackType : std::int32_t {
    eCT_SELECT_NOTIFY = 0,         ///< a user picked the client's entry on the device's panel
    eCT_ADF_NOTIFY = 1,            ///< the document feeder changed
    eCT_SCANNER_BUTTON_NOTIFY = 2, ///< the scanner button was pressed, and this host has the press
    /// The link is back. All subscriptions have to be made again, by Add in the callback itself or on a
    /// thread of the client's own.
    eCT_LINK_RECOVERED = 3,
    eCT_FAX_UPLOAD_NOTIFY = 4, ///< a fax waits for upload
};

/// What to subscribe to: Add's and Delete's flags, which may be combined. Other bits are ignored.
enum NotifyFlagType : DWORD {
    eNF_SELECT = 1,         ///< an entry on the panel: eCT_SELECT_NOTIFY
    eNF_ADF = 2,            ///< eCT_ADF_NOTIFY; local links only
    eNF_SCANNER_BUTTON = 4, ///< eCT_SCANNER_BUTTON_NOTIFY; local links only
    eNF_FAX_UPLOAD = 8,     ///< eCT_FAX_UPLOAD_NOTIFY
};

/// The port to give to Init when there is none to give.
constexpr DWORD kNotifyNoPort = 255;

/// A notification: the callback's second argument. It belongs to the agent and lives for the one
/// call; a client copies what it wants to keep.
///
///                                dwNotifyCode  nValue            dwValue  strOption  sender texts
///     eCT_SELECT_NOTIFY          7             0                 0        text       network link only
///     eCT_ADF_NOTIFY             8             1 feeder bit set  0        empty      empty
///     eCT_SCANNER_BUTTON_NOTIFY  16            0                 2        empty      empty
///     eCT_LINK_RECOVERED         0             0                 0        empty      empty
///     eCT_FAX_UPLOAD_NOTIFY      0             0                 0        empty      empty
struct CallbackDataType {
    DWORD cbSize;             ///< always 32, the record's size where a pointer has 4 bytes
    DWORD dwClientData;       ///< the constructor's second argument
    DWORD dwNotifyCode;       ///< by kind, see above
    int nValue;               ///< by kind, see above
    DWORD dwValue;            ///< by kind, see above
    CString strOption;        ///< the option text as the device sent it, at most 349 bytes
    CString strSenderAddress; ///< the sender's dotted IPv4 address
    CString strSenderName;    ///< the sender's host name, empty when it has none
};
static_assert(sizeof(void *) != 4 || sizeof(CallbackDataType) == 32,
              "clients on the 32-bit layout rely on a record of 32 bytes");
static_assert(kIsPosix || std::is_same_v<DWORD, unsigned long>,
              "on Windows every exported signature says unsigned long");

/// The client's callback. What it returns is disregarded.
typedef DWORD (*NotifyCallbackFn)(CallbackType eType, CallbackDataType *pData);

/// The agent for one device.
///
/// Who owns what: the client owns the agent; the agent owns the access object, its two threads, the
/// socket and the mutex. The destructor does not disconnect: Shutdown comes first.
///
/// Copies. Nothing needs one, and a copy is no second link: it takes over every field, and with them
/// borrows its source's link, threads, socket and mutex. The source stays the owner; what the library
/// reports, and what the copy reads with ReadTraps, goes to the source's callback. While the source is connected, the copy can Add, Delete and
/// Modify, with subscription counts of its own. The copy's Shutdown only lets go of the link, and the
/// source's Shutdown disconnects its copies with it. The mutex is closed by the last one that has it. A
/// connected agent that is assigned to is shut down first. Where there is no memory to make note of a
/// copy, it comes out unconnected, with a mutex of its own.
/// No other thread may be inside an operation of either agent meanwhile.
class QOMANOAG_API CNotifyAgent {
public:
    /// An agent without a link. pfnCallback may be null: then nothing is reported. dwClientData
    /// comes back in every notification. Seeds the runtime's random numbers (srand) on this thread.
    /// Reports no failure.
    CNotifyAgent(NotifyCallbackFn pfnCallback, DWORD dwClientData);

    /// See "Copies" above.
    CNotifyAgent(CNotifyAgent const &other);

    /// Requires: Shutdown has run, and no other thread is inside the agent. A connected agent that
    /// is destroyed leaves its link and its threads behind, with nobody to end them.
    ~CNotifyAgent();

    /// See "Copies" above.
    CNotifyAgent &operator=(CNotifyAgent const &other);

    /// Connects to a device.
    /// pszAddress  network: the device's dotted IPv4 address or host name. Local: the text that this
    ///             client wants to be known by at the device, or null to leave the choice to it.
    ///             Copied.
    /// dwPort      the device's port, host order, or kNotifyNoPort: the access library decides then.
    /// bNetwork    non-zero: over an IPv4 network; 0: a device at this machine.
    /// Returns 0; 8, not connected; 1247, connected before, nothing changed; 1307, the device is of
    /// another product line, not connected; or the library's code. With the last the agent counts as
    /// connected all the same, since the library goes on trying: Shutdown before the next Init. That
    /// datagrams cannot be received on a network is not reported.
    DWORD Init(char const *pszAddress, DWORD dwPort, int bNetwork);

    /// Disconnects. All subscriptions end; a callback that is running is waited for, without a
    /// limit; notifications that are still queued are dropped. Returns 0; 2250 or 1307 when the agent is
    /// not connected; or 50, nothing changed, inside the agent's own callback, and inside another one that
    /// this agent's callback is waiting for in its turn.
    DWORD Shutdown();

    /// Shutdown and Init again, with the same address, port and kind of link; after success
    /// eCT_LINK_RECOVERED goes to the callback. The agent does so by itself when the library asks
    /// for it. Subscriptions do not survive. Returns Init's result; on an agent that is not connected, or
    /// that is shut down before, 2250 or 1307; 50 as Shutdown.
    DWORD RestartDolRtl();

    /// Subscribes to each notification in dwFlags, in the order of the flags' values. The first
    /// failure ends the walk; what was subscribed before it stays.
    /// pdwInstance  eNF_SELECT only, where it must not be null: receives the number of the new panel
    ///              entry, 0 to 32767, which Delete and Modify need.
    /// pszOption    eNF_SELECT only, where it must be neither null nor empty: the text of the panel
    ///              entry. The agent sets no limit, but of the text that comes back with a selection,
    ///              which holds this one and about 50 bytes more, at most 349 bytes are taken.
    /// Returns 0; 2250 or 1307, not connected; 8; 50, no such notification over a network; 87; or
    /// the library's code.
    DWORD Add(DWORD *pdwInstance, DWORD dwFlags, char const *pszOption);

    /// Takes back one Add of each notification in dwFlags, in the same order and with the same stop
    /// at the first failure. dwInstance and pszOption say which panel entry (eNF_SELECT only): the
    /// number that Add gave, and Add's text. Returns as Add, and 51 for what is not subscribed.
    DWORD Delete(DWORD dwInstance, DWORD dwFlags, char const *pszOption);

    /// Replaces a panel entry: deletes *pdwInstance with pszOldOption, then adds pszNewOption, whose
    /// number goes to *pdwInstance. If the second step fails, the old entry is gone all the same.
    /// None of the three may be null. Returns as Add.
    DWORD Modify(DWORD *pdwInstance, char const *pszOldOption, char const *pszNewOption);

    /// Takes every waiting trap from the library and queues the notifications that follow. The agent
    /// does so by itself when the library asks for it. Waits neither for the client nor for another
    /// operation of the agent; Shutdown waits for it. Returns 0, 50, the library's code, or 2250 or
    /// 1307 when the agent is not connected. Throws CMemoryException when it has no memory.
    DWORD ReadTraps();

    /// Writes one discovery job with the agent's address to pszTarget, a file, device or pipe that
    /// exists, and stores the job's number through pdwSequence, 0 to 32767: the client looks for it
    /// ("SRVQ=") in the notifications that answer. The calling thread opens and writes the target;
    /// the agent's other operations wait meanwhile: at a named pipe on Linux, which fails with 110 when
    /// nobody reads it and with 29 when it takes nothing for 2 seconds, or as long as a device or a path
    /// across a network needs. Returns 0; 2250 or 1307, not connected; 8, 29 or 110, with *pdwSequence 0;
    /// or 87, an argument is null.
    DWORD InitiateSrvQDiscovery(DWORD *pdwSequence, char const *pszTarget);

private:
    friend class CAgentCopies;
    friend class CCallbackQThread;
    friend class CDatagramQThread;
    friend struct CNotifyAgentProbe; // the tests' way to the state; not defined in the module

    int DeviceIsAVellumax();
    DWORD IsDeviceInitialized();
    DWORD AddTrap(DWORD dwRow);
    DWORD DeleteTrap(DWORD dwRow);
    DWORD SupportedOverNetwork(DWORD dwRow);
    DWORD ResetScannerButtonOff();
    DWORD UISelectOption(DWORD dwInstance, char const *pszOption);
    DWORD AddUIOptionTrap(DWORD *pdwInstance, char const *pszOption);
    DWORD DeleteUIOptionTrap(DWORD dwInstance, char const *pszOption);
    DWORD InsertNetAddr(char const *pszText, CString *pstrOut, DWORD *pdwNumber, int bNewNumber,
                        char const *pszKey);
    int NetAddrIsOurs(char const *pszText);
    DWORD PerformCallback(CallbackType eType, int nValue, DWORD dwValue, char *pszOption,
                          char *pszSenderAddress, char *pszSenderName);
    DWORD StartupSupportThreads();
    DWORD ShutdownSupportThreads();
    DWORD StartupWinSock();
    DWORD ShutdownWinSock();
    DWORD CreateSocket();
    DWORD CloseSocket();
    DWORD ReceiveDatagrams();
    DWORD GetKickSeq(char *pszText, DWORD *pdwSequence);

    // The order of the fields is fixed. Unless said otherwise a field is read and written under
    // m_hMutex; an atomic one is also touched by threads that do not hold it, as the comment says.
    //
    // Locks, from first to last: m_hMutex; then the lock over those who wait for it (CAgentLock), that
    // of the copies (CAgentCopies), the lock over m_strNetAddr or those of a queue thread, which are
    // leaves for the agent: nothing of the agent's is waited for under one of them.
    int m_bWinSockStarted = 0;                   // this agent holds a start of the socket library
    std::atomic<NotifyCallbackFn> m_pfnCallback; // callback thread; null: nobody to tell
    std::atomic<CDatagramQThread *> m_pDatagramQThread{nullptr}; // null unless on a network
    std::atomic<CCallbackQThread *> m_pCallbackQThread{nullptr}; // trap reader, datagram thread
    std::atomic<SOCKET> m_socket{INVALID_SOCKET}; // datagram thread; an exchange wins its close
    std::atomic<WORD> m_wPort{0};          // m_socket's UDP port, host order; datagram thread
    std::atomic<int> m_bStopDatagrams{0};  // the datagram thread is to leave its loop
    std::atomic<int> m_bDeviceLineOk{1};   // 0: the last device was refused; IsDeviceInitialized
    std::atomic<DWORD> m_dwLastKickSeq{0}; // highest number delivered; datagram thread
    std::atomic<CDolRtl *> m_pDolRtl{nullptr}; // non-null: connected; trap reader, restart
    std::atomic<DWORD> m_dwClientData;         // callback thread
    std::atomic<int> m_bNetwork{0};            // the link goes over a network; SupportedOverNetwork
    DWORD m_cSelectTraps = 0;                  // subscriptions to the panel selection
    DWORD m_cAdfTraps = 0;                     // to the feeder
    DWORD m_cScannerButtonTraps = 0;           // to the scanner button
    DWORD m_cFaxUploadTraps = 0;               // to fax upload
    CString m_strHostName;                     // this host's name
    CString m_strHostAddress;                  // this host's first dotted IPv4 address
    CString m_strNetAddr; // the last NETADDR= clause; under its own lock alone (panel_options.cpp)
    HANDLE m_hMutex;      // constant after construction, but for an assignment
};
