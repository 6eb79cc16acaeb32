#pragma once
/*
 * notifymon's client of the agent: one device, its subscriptions, and the notifications that wait to
 * be shown.
 *
 * The agent's callback only copies and queues. Everything else, the new subscriptions after a
 * recovered link included, happens on the program's main thread: a callback that entered a locked
 * operation of the agent while Shutdown waits for the callback thread would never return.
 */
#include "tools/notifymon_output.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

struct MonitorOptions {
    std::string strAddress; /* empty: this machine */
    DWORD dwPort = 255;     /* TCP port of the device link; 255 stands for none given */
    bool bLocal = false;    /* a local link instead of the network */
    DWORD dwFlags = 0;      /* eNF_ bits to subscribe to */
    std::vector<std::string> rgstrOption; /* one panel entry each, for eNF_SELECT */
};

class CMonitorClient {
public:
    /* One at a time in a process: the word that the agent hands back is too narrow for a pointer. */
    explicit CMonitorClient(MonitorOptions options);
    /* Disconnects. */
    ~CMonitorClient();

    CMonitorClient(CMonitorClient const &) = delete;
    CMonitorClient &operator=(CMonitorClient const &) = delete;

    /* The agent's result. After a failure too the agent may go on trying; Disconnect ends that. */
    DWORD Connect();

    /*
     * Makes all subscriptions, whatever single ones return. Failures are told on stderr, one line
     * each; the result is the first failing code, or 0.
     */
    DWORD Subscribe();

    /* Takes the panel entries and the other subscriptions back, as far as the device answers. */
    void Unsubscribe();

    void Disconnect();

    /* Writes the discovery job to the target; on success *pdwSequence is its number. */
    DWORD Discover(std::string const &strTarget, DWORD *pdwSequence);

    /*
     * The next notification, or nothing when tpEnd has passed or Stop was called; a notification
     * that waits is handed out before either.
     */
    std::optional<Notification> Next(std::chrono::steady_clock::time_point tpEnd);

    /* Ends waits in Next. Any thread. */
    void Stop();
    bool IsStopped();

private:
    struct PanelEntry {
        std::string strOption;
        DWORD dwInstance;
        bool bPlaced;
    };

    static DWORD OnNotification(CallbackType eType, CallbackDataType *pData);
    void Enqueue(Notification notification);

    MonitorOptions const m_options;
    std::vector<PanelEntry> m_entries; /* main thread only */
    DWORD m_dwSubscribed = 0;          /* main thread only: flags but eNF_SELECT */

    std::mutex m_mutex; /* guards the three below */
    std::condition_variable m_changed;
    std::deque<Notification> m_waiting;
    bool m_bStopped = false;

    std::unique_ptr<CNotifyAgent> m_pAgent; /* last: its threads use what stands above */
};
