#include "tools/notifyhub_run.h"

#include "hub/hub.h"
#include "hub/hub_web.h"
#include "hub/metrics.h"
#include "hub/service.h"
#include "platform/console.h"
#include "platform/lock.h"
#include "tools/notifyhub_output.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <thread>

using std::chrono::milliseconds;

namespace {

using Clock = std::chrono::steady_clock;

// How often the status line is looked at, and whether the hub lives.
constexpr milliseconds kLook{2000};
// So long the end may take; then the process goes as it is. What is in the journal is safe.
constexpr std::chrono::seconds kEndLimit{12};

// What signals ask for.
class CRequests {
public:
    enum What { eNOTHING, eRELOAD, eEND };

    void Ask(What eWhat)
    {
        {
            CPlatGuard const lock(m_mutex);
            m_eAsked = std::max(m_eAsked, eWhat);
        }
        m_cv.notify_all();
    }
    What WaitUntil(Clock::time_point tpEnd)
    {
        CPlatWaitGuard lock(m_mutex);
        while (m_eAsked == eNOTHING &&
               m_cv.wait_until(lock.Native(), tpEnd) != std::cv_status::timeout) {
        }
        What const eAsked = m_eAsked;
        if (eAsked != eEND) {
            m_eAsked = eNOTHING;
        }
        return eAsked;
    }

private:
    CPlatMutex m_mutex;
    std::condition_variable m_cv;
    What m_eAsked PLAT_GUARDED_BY(m_mutex) = eNOTHING;
};

CRequests &Requests()
{
    static CRequests *const s_pRequests =
        new CRequests; // a signal may come while the process's statics go
    return *s_pRequests;
}

BOOL WINAPI OnConsole(DWORD dwEvent)
{
    Requests().Ask(dwEvent == CTRL_BREAK_EVENT ? CRequests::eRELOAD : CRequests::eEND);
    return TRUE;
}

std::unique_ptr<CHubSink> MakeSink(HubSinkSettings const &settings, HubSinkHost const &host)
{
    if (auto const *const pPrint = std::get_if<HubPrintSettings>(&settings.kind)) {
        return std::make_unique<CPrintSink>(*pPrint);
    }
    return MakeHubSink(settings, host);
}

class CHubRun {
public:
    CHubRun(std::string strFile, std::optional<HubListenSettings> web)
        : m_strFile(std::move(strFile)), m_webGiven(std::move(web)), m_hub(PrintHubLog, MakeSink),
          m_feed(CService::FeedPeriod())
    {
    }

    int Run(HubSettings const &settings)
    {
        std::string strError;
        if (!m_hub.Start(settings, &strError)) {
            PrintHubLog(eHL_ERROR, strError);
            return eHX_CANNOT_KEEP;
        }
        ServeMetrics(settings);
        ServePages(settings);
        PrintHubLog(eHL_NOTICE, "ready, journal " + settings.journal.strFile);
        m_service.Ready(HubStatusLine(m_hub.Status()));
        for (auto eAsked = CRequests::eNOTHING; eAsked != CRequests::eEND;) {
            eAsked = Requests().WaitUntil(Clock::now() + m_feed.value_or(kLook));
            if (eAsked == CRequests::eRELOAD) {
                Reload();
            }
            if (m_feed && m_hub.Lives()) {
                m_service.Feed();
            }
            m_service.Status(HubStatusLine(m_hub.Status()));
        }
        return End();
    }

private:
    // Where the settings want it; what cannot be had is no reason not to hear devices.
    void ServeMetrics(HubSettings const &settings)
    {
        if (settings.metrics == m_metrics) {
            return;
        }
        m_pMetrics.reset();
        m_metrics = settings.metrics;
        if (!m_metrics) {
            return;
        }
        std::string strError;
        m_pMetrics =
            std::make_unique<CHubMetricsServer>(*m_metrics, [this] { return m_hub.Status(); });
        if (m_pMetrics->Start(&strError)) {
            PrintHubLog(eHL_NOTICE, "metrics at " + m_pMetrics->Url() + "metrics");
        } else {
            PrintHubLog(eHL_ERROR, "no metrics: " + strError);
            m_pMetrics.reset();
        }
    }

    void ServePages(HubSettings const &settings)
    {
        std::optional<HubListenSettings> const &wanted = m_webGiven ? m_webGiven : settings.web;
        if (wanted == m_web) {
            return;
        }
        m_pWeb.reset();
        m_web = wanted;
        if (!m_web) {
            return;
        }
        std::string strError;
        m_pWeb = std::make_unique<CHubWeb>(*m_web, settings.journal.strFile, m_hub);
        if (m_pWeb->Start(&strError)) {
            PrintHubLog(eHL_NOTICE, "pages at " + m_pWeb->Url());
        } else {
            PrintHubLog(eHL_ERROR, "no pages: " + strError);
            m_pWeb.reset();
        }
    }

    void Reload()
    {
        if (m_strFile.empty()) {
            PrintHubLog(eHL_NOTICE, "there are no settings to read again");
            return;
        }
        m_service.Reloading();
        std::string strError;
        if (auto const settings = ReadHubSettings(m_strFile, &strError)) {
            m_hub.Apply(*settings);
            ServeMetrics(*settings);
            ServePages(*settings);
            PrintHubLog(eHL_NOTICE, "the settings have been read again");
        } else {
            PrintHubLog(eHL_ERROR, strError + "; the settings stay as they were");
        }
        m_service.Ready(HubStatusLine(m_hub.Status()));
    }

    int End()
    {
        m_service.Stopping();
        m_pMetrics.reset();
        m_pWeb.reset();
        // Whatever waits for whom, the process ends; a thread that it would have to wait for goes with it.
        std::thread([] {
            std::this_thread::sleep_for(kEndLimit);
            std::_Exit(eHX_DONE);
        }).detach();
        if (!m_hub.End()) {
            std::_Exit(eHX_DONE);
        }
        PrintHubLog(eHL_NOTICE, "ended");
        return eHX_DONE;
    }

    std::string const m_strFile;
    std::optional<HubListenSettings> const m_webGiven; // by the command line
    CHub m_hub;
    CService m_service;
    std::optional<milliseconds> const m_feed;
    std::optional<HubListenSettings> m_metrics; // as it is served, or could not be
    std::unique_ptr<CHubMetricsServer> m_pMetrics;
    std::optional<HubListenSettings> m_web; // the same of the pages
    std::unique_ptr<CHubWeb> m_pWeb;
};

} // namespace

int RunHub(HubSettings const &settings, std::string const &strFile,
           std::optional<HubListenSettings> const &web)
{
    SetConsoleCtrlHandler(OnConsole, TRUE);
    return CHubRun(strFile, web).Run(settings);
}
