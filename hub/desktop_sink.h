#pragma once
/// @file
/// CDesktopSink: a bubble on the desktop for each event, by org.freedesktop.Notifications on the user's session bus.
#include "hub/settings.h"
#include "hub/sink.h"

#include <memory>

class CDesktopSinkImpl;

/// The server is asked for each event what it can do, since it may have been replaced: a body goes to one that
/// shows bodies, and is escaped only for one that reads markup. An event is taken when the server has given
/// the bubble a number. Without a session bus or a server, as in a system service, events have to wait.
class CDesktopSink final : public CHubSink {
public:
    /// Throws std::bad_alloc.
    explicit CDesktopSink(HubDesktopSettings const &settings);
    ~CDesktopSink() override;

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override;
    void Stop() override;

private:
    std::unique_ptr<CDesktopSinkImpl> const m_pImpl;
};
