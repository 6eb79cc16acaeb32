#pragma once
/// @file
/// CMqttSink: events to a broker, and beside them what is known of the devices (hub/mqtt_topics.h). And two hubs
/// for one site, of which the second stands by.
///
/// A device sends a pick to the one client whose entry was picked, so two hubs that both hear a device put each
/// entry on its panel twice. A hub that stands by therefore does not hear at all: it has no entry, nobody picks
/// one of it, and of two hubs that are well one is told. What shows who hears is at the broker, where each hub
/// leaves word by one connection:
///
/// - The hub that hears says so in "active", by its name, and in "availability". Its will takes the latter back.
/// - The one that stands by has no will. When the site has been unavailable for 5 s, which is longer than a hub
///   that is well takes to come back after the broker has restarted, it connects anew with that will, says
///   that it is the active one, and hears.
/// - The first hub says that it is the active one whenever it connects. Whoever stands in for it sees that and
///   hears no more. For the moment in which both hear, each pick is still one hub's.
/// - A hub that hears and sees that somebody's late will has made the site unavailable says once more that it
///   is not.
///
/// What the first hub had in its journal when it ended it hands on when it is back: so nothing of it is lost,
/// and nobody else has it. A broker that nobody reaches changes nobody's mind: who hears goes on. A hub that the
/// broker alone cannot reach goes on, too, beside the one that took over.
#include "hub/make_sink.h"
#include "hub/mqtt_topics.h"

#include <memory>
#include <string>

class CMqttSinkImpl;

/// The sink. Events wait for the connection as long as the settings' limit says; unless the broker refuses it.
class CMqttSink final : public CHubSink {
public:
    /// Connects in the background. With bStandby in the settings the hub begins without hearing, and the host's
    /// onTurn is called for each change; without it, never. Throws std::bad_alloc or std::system_error.
    explicit CMqttSink(HubMqttSettings const &settings, HubSinkHost const &host);
    /// Says that the site is unavailable, if this hub hears it, and closes the connection; about a second.
    ~CMqttSink() override;

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override;
    HubOutcomeType DeliverSome(std::vector<HubEvent const *> const &events, std::size_t *pcTaken,
                               std::string *pstrWhy) override;
    void Tell(HubDeviceState const &state) override;
    void Forget(std::string const &strDevice) override;
    void Stop() override;

private:
    std::unique_ptr<CMqttSinkImpl> const m_pImpl;
};
