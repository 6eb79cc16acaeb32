#pragma once
/// @file
/// CHub: the devices of an office, heard; their events, kept; and whoever wants them, served.
#include "hub/event_store.h"
#include "hub/hub_log.h"
#include "hub/hub_status.h"
#include "hub/make_sink.h"
#include "hub/settings.h"

#include <memory>
#include <string>
#include <vector>

class CHubImpl;

/// A hub. Start, Apply and End are for one thread; the rest for any.
class CHub {
public:
    /// What it says goes to log, what it hands events to is made by makeSink.
    CHub(HubLogFn log, MakeHubSinkFn makeSink);
    ~CHub(); ///< End has been called, or Start has failed
    CHub(CHub const &) = delete;
    CHub &operator=(CHub const &) = delete;

    /// Opens the journal and begins. False with one line: nothing runs.
    bool Start(HubSettings const &settings, std::string *pstrError);

    /// Goes over to other settings: what is new begins, what has gone ends, what is unchanged is not touched. What
    /// cannot be changed while the hub runs is logged, and stays.
    void Apply(HubSettings const &settings);

    /// Ends it: what was heard is on the disk, entries are taken back from the devices' panels. False when a sink or
    /// a device still keeps a thread of ours waiting, so that only the process's own end helps.
    bool End();

    HubStatus Status() const;

    /// The journal's events that fit. False with the reason.
    bool Search(JournalQuery const &query, std::vector<HubEvent> *pEvents, std::string *pstrError);

    /// Whether the devices are heard, seen from the far end: each agent that is connected over a network hands what
    /// reaches its port to its callback thread. To be asked every few seconds.
    bool Lives();

private:
    std::unique_ptr<CHubImpl> m_pImpl;
};
