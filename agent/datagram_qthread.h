#pragma once
/// @file
/// The thread that listens for datagrams, on network links only.
///
/// Its one request runs the agent's receive loop inside one ProcessEntry for as long as the socket
/// lives. The agent makes one with each Init; Shutdown closes the socket first, which ends the loop, and
/// then gives up its only reference.
#include "agent/QOMANoAg.h"
#include "foundation/g_qthread.h"

/// What the thread can be asked for.
enum DatagramRequestType : std::int32_t {
    eDT_RECEIVE_DATAGRAMS = 0, ///< run the agent's receive loop
};

/// A request: one tracked block, the queue's once it is queued.
struct DatagramMsgType {
    DatagramRequestType eType; ///< what to do
    CNotifyAgent *pAgent;      ///< for which agent, which ends the thread before itself
};

/// The thread that listens for one agent on a network.
class CDatagramQThread final : public CGQThread {
public:
    /// Arguments but the first are CGQThread's; dwParam is not passed on, the worker always gets 0.
    CDatagramQThread(CNotifyAgent *pAgent, char const *pszName, LONG eKind, LONG nPriorityClass,
                     LONG nPriority, DWORD dwParam);
    ~CDatagramQThread() override; ///< the loop has been told to end before

    /// Queues one request. Any thread. One that cannot be had, or that the queue does not take, is
    /// dropped. Always 0.
    DWORD PostRequest(DatagramRequestType eType, CNotifyAgent *pAgent);

    /// Runs the request, on the worker. When there is no memory for the loop, it ends as after a failed
    /// receive. Always 0.
    DWORD ProcessEntry(CNode *pNode, CGQThread *pSelf, DWORD dwParam) override;

private:
    [[maybe_unused]] CNotifyAgent *const m_pAgent; // each request names its agent itself
};
