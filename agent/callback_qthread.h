#pragma once
/// @file
/// The thread that calls the client.
///
/// Whoever learns of an event, on whatever thread, posts a message that holds all of it and goes on; the
/// worker takes the messages one after the other and calls the client with each. The agent makes one
/// with each Init and gives up its only reference in Shutdown: the call in progress is finished, what is
/// still queued is freed without reaching the client.
#include "agent/QOMANoAg.h"
#include "foundation/g_qthread.h"

#if UINTPTR_MAX == 0xFFFFFFFFu
// On 32 bits no field moves by this, but the block ends with its last byte.
#pragma pack(push, 2)
#endif
/// A message: one tracked block, whose pointers refer to its own text areas, so it is never moved or
/// copied. The areas have the sizes of the posters' buffers.
struct CallbackMsgType {
    CallbackType eType;       ///< what the client is told
    CNotifyAgent *pAgent;     ///< whose client; ends the queue before itself
    int nValue;               ///< of the record that the client gets
    DWORD dwValue;            ///< likewise
    char *pszOption;          ///< szOption
    char *pszSenderAddress;   ///< szSenderAddress
    char *pszSenderName;      ///< szSenderName
    char szOption[350];       ///< 349 bytes of text and a zero
    char szSenderAddress[16]; ///< a dotted IPv4 address, or empty
    char szSenderName[260];   ///< 259 bytes at most, or empty
};
#if UINTPTR_MAX == 0xFFFFFFFFu
#pragma pack(pop)
#endif
static_assert(sizeof(void *) != 4 || sizeof(CallbackMsgType) == 654,
              "the block that is counted has 654 bytes on the 32-bit layout");

/// The queue of messages with its worker, see above.
class CCallbackQThread final : public CGQThread {
public:
    /// @{
    /// Arguments but the first are CGQThread's; dwParam is not passed on, the worker always gets 0.
    CCallbackQThread(CNotifyAgent *pAgent, char const *pszName, LONG eKind, LONG nPriorityClass,
                     LONG nPriority, DWORD dwParam);
    ~CCallbackQThread() override;
    /// @}

    /// Queues one notification; does not wait for the client. Any thread, with no lock of the agent.
    /// Texts may be null, which reads as empty, and are copied; one that is longer than its area is cut.
    /// A message that cannot be had, or that the queue does not take, is dropped. Always 0.
    DWORD PostCallback(DWORD dwKind, CNotifyAgent *pAgent, int nValue, DWORD dwValue,
                       char const *pszOption, char const *pszSenderAddress,
                       char const *pszSenderName);

    /// PostCallback on pThread, in the name of its agent; a null pThread, which could not be made, drops
    /// the notification.
    static void PostTo(CCallbackQThread *pThread, DWORD dwKind, int nValue, DWORD dwValue,
                       char const *pszOption, char const *pszSenderAddress,
                       char const *pszSenderName);

    /// Calls the client with the node's message, on the worker. Always 0.
    DWORD ProcessEntry(CNode *pNode, CGQThread *pSelf, DWORD dwParam) override;

    /// The agent inside whose client's callback this thread is, or null.
    static CNotifyAgent const *Calling();

    /// The agent that made this thread, and ends it.
    CNotifyAgent const *Agent() const { return m_pAgent; }

private:
    CNotifyAgent *const m_pAgent;
};
