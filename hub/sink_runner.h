#pragma once
/// @file
/// CSinkRunner: one sink with its thread, which takes the events out of the store in their order and hands each on
/// until it is taken, refused or too old.
#include "hub/event_store.h"
#include "hub/hub_log.h"
#include "hub/hub_status.h"
#include "hub/settings.h"
#include "hub/sink.h"
#include "platform/lock.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using HubRulesPtr = std::shared_ptr<std::vector<HubRule> const>;

/// Any thread may call anything.
class CSinkRunner {
public:
    /// The store outlives the object. Where the sink begins is the place.
    CSinkRunner(HubSinkSettings settings, std::unique_ptr<CHubSink> pSink, CEventStore &store,
                SinkPlace const &place, HubRulesPtr pRules, HubLogFn log);
    /// Ended has to have given true.
    ~CSinkRunner();
    CSinkRunner(CSinkRunner const &) = delete;
    CSinkRunner &operator=(CSinkRunner const &) = delete;

    HubSinkSettings const &Settings() const { return m_settings; }

    void Wake();                          ///< the store has more events
    void SetRules(HubRulesPtr pRules);    ///< from the next event on
    void SetBack(SinkPlace const &place); ///< somebody has set the place; passed over if it is ours
    void Tell(HubDeviceState const &state); ///< as CHubSink::Tell, soon
    void Forget(std::string const &strDevice);

    void Stop();                                             ///< asks for the end
    bool Ended(std::chrono::steady_clock::time_point tpEnd); ///< waits for it; whether it has come
    HubSinkStatus Status() const;

private:
    using Clock = std::chrono::steady_clock;

    void Run();
    void TellNews();
    HubEventPtr Next();
    void Fetch();
    void MissedUntil(std::uint64_t dwPlace);
    std::vector<HubEvent const *> WantedFrom(HubEvent const &first) const;
    void HandOn(HubEvent const &event);
    bool IsWanted(HubEvent const &event) const;
    bool IsTooOld(HubEvent const &event) const;
    void Failed(HubEvent const &event, std::string const &strWhy);
    void GiveUp(HubEvent const &event, std::string const &strWhy);
    void Taken(std::size_t cEvents);
    void Advance(std::uint64_t dwPlace);
    void Rest(Clock::time_point tpEnd);
    bool IsStopped() const;

    HubSinkSettings const m_settings;
    std::unique_ptr<CHubSink> const m_pSink;
    CEventStore &m_store;
    HubLogFn const m_log;

    // The thread's own.
    std::deque<HubEventPtr> m_fetched;
    std::chrono::milliseconds m_pause;
    std::uint64_t m_dwEpoch; // of m_fetched

    mutable CPlatMutex m_mutex; // a leaf; guards what follows
    std::condition_variable m_cv;
    SinkPlace m_place PLAT_GUARDED_BY(m_mutex);
    std::chrono::system_clock::time_point m_tpSetBack PLAT_GUARDED_BY(m_mutex);
    HubRulesPtr m_pRules PLAT_GUARDED_BY(m_mutex);
    std::map<std::string, std::optional<HubDeviceState>> m_news PLAT_GUARDED_BY(m_mutex);
    HubSinkStatus m_status PLAT_GUARDED_BY(m_mutex);
    std::chrono::system_clock::time_point m_tpOldest PLAT_GUARDED_BY(m_mutex); // of what waits
    bool m_bWoken PLAT_GUARDED_BY(m_mutex) = false;
    bool m_bStopped PLAT_GUARDED_BY(m_mutex) = false;
    bool m_bEnded PLAT_GUARDED_BY(m_mutex) = false;
    std::thread m_thread; // last: it uses what stands above
};
