#pragma once
/// @file
/// What a hub's state looks like to Prometheus, and to those who only ask whether it is well.
#include "hub/hub_status.h"
#include "hub/settings.h"

#include <functional>
#include <memory>
#include <string>

class CWebServer;

/// The state in the text format that Prometheus reads, version 0.0.4.
std::string HubMetricsText(HubStatus const &status);

/// Serves /metrics and /healthz. The latter answers 200 {"status":"ok"}, or 503 with the
/// reason while the journal takes nothing: a device or a sink that is away is no fault of the hub's.
class CHubMetricsServer {
public:
    /// status is asked at each request, by several threads at once.
    CHubMetricsServer(HubListenSettings const &settings, std::function<HubStatus()> status);
    ~CHubMetricsServer(); ///< stops it

    /// Begins to listen; once. False with the reason in one line.
    bool Start(std::string *pstrError);
    std::string Url() const; ///< after Start: http://ADDRESS:PORT/

private:
    std::unique_ptr<CWebServer> const m_pServer;
};
