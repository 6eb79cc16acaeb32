#pragma once
// What stands behind CHub: the devices' sessions, the writer and the sinks' runners.
//
// One thread, the writer, takes what all sessions yield, puts it into the journal and wakes the sinks. Everything else
// about devices, such as how it stands with them, is written by it, too.

#include "hub/envelope.h"
#include "hub/event_store.h"
#include "hub/hub.h"
#include "hub/sink_runner.h"
#include "platform/lock.h"
#include "session/session.h"
#include "session/supervisor.h"

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class CHubImpl {
public:
    CHubImpl(HubLogFn log, MakeHubSinkFn makeSink);
    ~CHubImpl();

    bool Start(HubSettings const &settings, std::string *pstrError);
    void Apply(HubSettings const &settings);
    bool End();
    HubStatus Status() const;
    bool Search(JournalQuery const &query, std::vector<HubEvent> *pEvents, std::string *pstrError);
    bool Lives();

private:
    using Clock = std::chrono::steady_clock;

    struct Device {
        SessionOptions options;
        std::unique_ptr<CSession> pSession; // null while it is another hub's turn
        HubDeviceStatus status;
        std::uint64_t cHeard = 0; // round trips, when Lives saw the last one
        Clock::time_point tpHeard;
    };

    // The devices.
    void ApplyDevices(std::vector<SessionOptions> const &devices);
    void RemoveDevices(std::vector<SessionOptions> const &devices);
    void BeginDevice(Device &device) PLAT_REQUIRES(m_mutex);
    void TakeTurn(bool bOurs);
    void AwaitLeavers(Clock::time_point tpEnd);

    // The sinks.
    void ApplySinks(std::vector<HubSinkSettings> const &sinks);
    void RemoveSinks(std::vector<HubSinkSettings> const &sinks);
    bool BeginSink(HubSinkSettings const &settings, HubRulesPtr const &pRules);
    void LeaveSinks(std::list<std::unique_ptr<CSinkRunner>> leaving);

    // The writer.
    void RunWriter();
    void TakeEvents(SessionTime tpEnd);
    void AddEvent(SessionEvent const &event);
    void NoteState(std::string const &strDevice, LinkChange const &change,
                   std::chrono::system_clock::time_point tpTime);
    void BoundPending();
    std::vector<HubEvent> NextToWrite(std::size_t cEvents);
    void WritePending();
    void CountWritten(std::vector<std::pair<std::string, std::string>> const &written)
        PLAT_REQUIRES(m_mutex);
    void KeepHouse();
    void Prune();
    void LookForSetBacks();

    HubLogFn const m_log;
    MakeHubSinkFn const m_makeSink;
    std::unique_ptr<CJournal> m_pJournal;
    std::unique_ptr<CEventStore> m_pStore;
    std::shared_ptr<CEventQueue> m_pEvents;
    std::unique_ptr<CSupervisor> m_pSupervisor;
    std::chrono::system_clock::time_point const m_tpStarted = std::chrono::system_clock::now();

    mutable CPlatMutex
        m_mutex; // before the runners' locks and the store's; never held across a wait
    HubSettings m_settings PLAT_GUARDED_BY(m_mutex);
    std::map<std::string, Device> m_devices PLAT_GUARDED_BY(m_mutex);
    std::list<std::unique_ptr<CSinkRunner>> m_runners PLAT_GUARDED_BY(m_mutex);
    HubJournalStatus m_journal PLAT_GUARDED_BY(m_mutex);
    bool m_bActive PLAT_GUARDED_BY(m_mutex) = true;
    std::vector<std::unique_ptr<CSession>> m_leavers PLAT_GUARDED_BY(m_mutex); // asked to end

    // The writer's own.
    std::optional<CEnvelopes> m_envelopes;
    std::deque<HubEvent> m_pending;  // not on the disk yet
    std::uint64_t m_cDroppedNow = 0; // of m_pending, not told in an event yet
    Clock::time_point m_tpTry;       // when the next write is due after one that failed
    Clock::time_point m_tpFlush;     // when what sinks have told is written at the latest
    Clock::time_point m_tpLook;
    Clock::time_point m_tpPrune;
    Clock::time_point m_tpSayDropped;

    std::atomic<bool> m_bEnding{false};
    std::atomic<bool> m_bWriterEnds{false}; // once the devices have
    std::thread m_writer;
};
