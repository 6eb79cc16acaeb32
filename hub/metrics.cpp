#include "hub/metrics.h"

#include "web/web_server.h"

#include <nlohmann/json.hpp>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <initializer_list>

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

using Labels = std::initializer_list<ClientMetric::Label>;

// The families, in the order in which they are written.
class CFamilies {
public:
    // Begins a family; what is added after it belongs to it.
    void Begin(MetricType eType, char const *pszName, char const *pszHelp)
    {
        MetricFamily family;
        family.name = pszName;
        family.help = pszHelp;
        family.type = eType;
        m_families.push_back(std::move(family));
    }
    void Add(Labels labels, double value)
    {
        MetricFamily &family = m_families.back();
        ClientMetric metric;
        metric.label = labels;
        (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
        family.metric.push_back(std::move(metric));
    }
    void One(MetricType eType, char const *pszName, char const *pszHelp, double value)
    {
        Begin(eType, pszName, pszHelp);
        Add({}, value);
    }
    std::string Text() const { return prometheus::TextSerializer().Serialize(m_families); }

private:
    std::vector<MetricFamily> m_families;
};

template <class T>
double Number(T value)
{
    return static_cast<double>(value);
}

double Seconds(std::chrono::system_clock::time_point tp)
{
    return std::chrono::duration<double>(tp.time_since_epoch()).count();
}

std::string const &NameOf(HubDeviceStatus const &device)
{
    return device.state.strDevice;
}

std::string const &NameOf(HubSinkStatus const &sink)
{
    return sink.strName;
}

void AddHub(HubStatus const &status, CFamilies &families)
{
    families.One(MetricType::Gauge, "qoma_hub_start_time_seconds",
                 "When the hub began, in seconds since 1970.", Seconds(status.tpStarted));
    families.One(MetricType::Gauge, "qoma_hub_active",
                 "1 while the hub hears its devices, 0 while it stands by.", status.bActive);
}

void AddJournal(HubJournalStatus const &journal, CFamilies &families)
{
    families.One(MetricType::Gauge, "qoma_hub_journal_up", "1 while the journal takes events.",
                 journal.strProblem.empty());
    families.One(MetricType::Gauge, "qoma_hub_journal_size_bytes",
                 "What the journal takes on the disk.", Number(journal.cbSize));
    families.One(MetricType::Counter, "qoma_hub_journal_events_total",
                 "Events that were written into the journal.", Number(journal.cWritten));
    families.One(MetricType::Counter, "qoma_hub_journal_commits_total",
                 "Transactions that they took.", Number(journal.cCommits));
    families.One(MetricType::Gauge, "qoma_hub_journal_waiting_events",
                 "Events in memory that are not on the disk yet.", Number(journal.cWaiting));
    families.One(MetricType::Counter, "qoma_hub_journal_dropped_events_total",
                 "Events that never came to the disk.", Number(journal.cDropped));
}

// A family with one value for each device or sink.
template <class T, class Fn>
void AddEach(std::vector<T> const &all, char const *pszLabel, MetricType eType, char const *pszName,
             char const *pszHelp, Fn value, CFamilies &families)
{
    families.Begin(eType, pszName, pszHelp);
    for (T const &one : all) {
        families.Add({{pszLabel, NameOf(one)}}, Number(value(one)));
    }
}

void AddDevices(std::vector<HubDeviceStatus> const &devices, CFamilies &families)
{
    using Device = HubDeviceStatus;
    families.Begin(MetricType::Counter, "qoma_hub_events_total",
                   "Events of a device that were written into the journal.");
    for (Device const &device : devices) {
        for (auto const &[strType, c] : device.events) {
            families.Add({{"device", NameOf(device)}, {"type", strType}}, Number(c));
        }
    }
    auto const add = [&](MetricType eType, char const *pszName, char const *pszHelp, auto value) {
        AddEach(devices, "device", eType, pszName, pszHelp, value, families);
    };
    add(MetricType::Gauge, "qoma_hub_device_up",
        "1 while the link to a device stands, with all subscriptions.",
        [](Device const &device) { return device.state.bAvailable; });
    add(MetricType::Counter, "qoma_hub_device_echoes_total",
        "Datagrams to a device's listener that it echoed.",
        [](Device const &device) { return device.cEchoes; });
    add(MetricType::Counter, "qoma_hub_device_missed_echoes_total",
        "Datagrams to a device's listener that it did not echo.",
        [](Device const &device) { return device.cEchoesMissed; });
    add(MetricType::Counter, "qoma_hub_device_silenced_total",
        "Times that a device's listener had ended, or its filter hid what came.",
        [](Device const &device) { return device.cSilenced; });
}

void AddSinks(std::vector<HubSinkStatus> const &sinks, CFamilies &families)
{
    using Sink = HubSinkStatus;
    auto const add = [&](MetricType eType, char const *pszName, char const *pszHelp, auto value) {
        AddEach(sinks, "sink", eType, pszName, pszHelp, value, families);
    };
    add(MetricType::Gauge, "qoma_hub_sink_up", "0 when the last try of a sink failed, 1 otherwise.",
        [](Sink const &sink) { return sink.strProblem.empty(); });
    add(MetricType::Counter, "qoma_hub_sink_delivered_events_total",
        "Events that a sink has taken, repeats counted.",
        [](Sink const &sink) { return sink.cDelivered; });
    add(MetricType::Counter, "qoma_hub_sink_retries_total", "Tries that have to be made once more.",
        [](Sink const &sink) { return sink.cRetries; });
    add(MetricType::Counter, "qoma_hub_sink_given_up_events_total",
        "Events that a sink refused, or that were too old for it.",
        [](Sink const &sink) { return sink.cGivenUp; });
    add(MetricType::Gauge, "qoma_hub_sink_waiting_events",
        "Events in the journal that have not been handed to a sink.",
        [](Sink const &sink) { return sink.cWaiting; });
    add(MetricType::Gauge, "qoma_hub_sink_oldest_age_seconds",
        "How long the first of them has waited, 0 without one.",
        [](Sink const &sink) { return sink.oldest.count(); });
}

WebReply Health(HubStatus const &status)
{
    bool const bWell = status.journal.strProblem.empty();
    nlohmann::json json{{"status", bWell ? "ok" : "failing"}};
    if (!bWell) {
        json["reason"] = status.journal.strProblem;
    }
    WebReply reply;
    reply.nStatus = bWell ? 200 : 503;
    reply.strJson = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    return reply;
}

WebConfig ConfigOf(HubListenSettings const &settings)
{
    WebConfig config;
    config.strAddress = settings.strAddress;
    config.wPort = settings.wPort;
    return config;
}

} // namespace

std::string HubMetricsText(HubStatus const &status)
{
    CFamilies families;
    AddHub(status, families);
    AddJournal(status.journal, families);
    AddDevices(status.devices, families);
    AddSinks(status.sinks, families);
    return families.Text();
}

CHubMetricsServer::CHubMetricsServer(HubListenSettings const &settings,
                                     std::function<HubStatus()> status)
    : m_pServer(std::make_unique<CWebServer>(ConfigOf(settings)))
{
    m_pServer->Get("/metrics", [status](WebRequest const &) {
        WebReply reply;
        reply.strJson = HubMetricsText(status());
        reply.strType = "text/plain; version=0.0.4; charset=utf-8";
        return reply;
    });
    m_pServer->Get("/healthz", [status](WebRequest const &) { return Health(status()); });
}

CHubMetricsServer::~CHubMetricsServer() = default;

bool CHubMetricsServer::Start(std::string *pstrError)
{
    return m_pServer->Start(pstrError);
}

std::string CHubMetricsServer::Url() const
{
    return m_pServer->Url();
}
