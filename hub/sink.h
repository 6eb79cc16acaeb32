#pragma once
/// @file
/// CHubSink: somebody to whom events are handed. Which events, in which order, how often and how long an event is
/// tried is the business of who calls it; a sink hands on one event at a time and says how that went.
#include "hub/hub_event.h"

#include <cstddef>
#include <string>
#include <vector>

/// What became of an event that was to be handed on.
enum HubOutcomeType {
    eHO_TAKEN, ///< whoever it is for has it; it is done with
    eHO_LATER, ///< not now; the same event is handed to Deliver again after a pause
    eHO_REFUSED, ///< never: no retry can change it, such as a request that the other side calls malformed
};

/// How it stands with a device, for sinks that tell of it beside the events.
struct HubDeviceState {
    std::string strDevice;   ///< its name in the settings
    std::string strAddress;  ///< where it was reached last, or empty
    std::string strModel;    ///< as far as it is known, or empty
    bool bAvailable = false; ///< the link stands, with all subscriptions
    std::string strState; ///< "waiting", "connected", "lost", "incomplete", "restarting" or "back"
};

/// One sink. It belongs to one thread, on which all but Stop is called.
class CHubSink {
public:
    virtual ~CHubSink() = default;

    /// Hands the event on; returns when it is known what became of it. A wait in it ends with the time limit of
    /// the sink's settings, and with Stop. On anything but eHO_TAKEN *pstrWhy is the reason in one line.
    virtual HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) = 0;

    /// Hands on events from the front of a list that is not empty, the first one or as many as the sink likes to
    /// have on their way at once. *pcTaken is how many were taken, all from the front. eHO_TAKEN is the result if
    /// that was at least one, and nothing is known to be wrong with the next; else it tells of the next one. What
    /// stands behind may have been handed on, too; it is not done with, and comes with the next call.
    virtual HubOutcomeType DeliverSome(std::vector<HubEvent const *> const &events,
                                       std::size_t *pcTaken, std::string *pstrWhy)
    {
        HubOutcomeType const eOutcome = Deliver(*events.front(), pstrWhy);
        *pcTaken = eOutcome == eHO_TAKEN ? 1 : 0;
        return eOutcome;
    }

    /// A device's state has changed, or the sink is new and this is how it stands. Not kept and not tried again:
    /// the sink remembers what it needs, such as for the next time that it has a connection.
    virtual void Tell(HubDeviceState const &) {}

    /// Nothing more comes from or for the device; it has left the settings.
    virtual void Forget(std::string const & /*strDevice*/) {}

    /// From any thread, at any time, once: the end is near; a Deliver that waits returns eHO_LATER at once, each
    /// later one as well.
    virtual void Stop() = 0;
};
