#include "tools/notifyhub_events.h"

#include "hub/journal.h"
#include "tools/notifyhub_output.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <thread>

using std::chrono::milliseconds;
using std::chrono::system_clock;

namespace {

constexpr std::size_t kAtOnce = 500;
constexpr milliseconds kLook{200}; // between two looks for more

std::optional<system_clock::time_point> TimeAgo(std::string const &strText)
{
    constexpr std::array<std::pair<char, int>, 4> kUnits{
        {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};
    int nCount = 0;
    auto const [pEnd, error] =
        std::from_chars(strText.data(), strText.data() + strText.size(), nCount);
    for (auto const &[chUnit, nFactor] : kUnits) {
        if (error == std::errc() && nCount >= 0 && pEnd + 1 == strText.data() + strText.size() &&
            *pEnd == chUnit) {
            return system_clock::now() - std::chrono::seconds(std::int64_t{nCount} * nFactor);
        }
    }
    return std::nullopt;
}

// A failure of the journal's in one line.
int Fail(std::string const &strError, int nExitCode)
{
    PrintHubLog(eHL_ERROR, strError);
    return nExitCode;
}

} // namespace

std::optional<system_clock::time_point> TimeOfText(std::string const &strText)
{
    if (auto const tp = TimeAgo(strText)) {
        return tp;
    }
    int nYear = 0;
    unsigned nMonth = 0;
    unsigned nDay = 0;
    unsigned nHour = 0;
    unsigned nMinute = 0;
    unsigned nSecond = 0;
    int cbDay = 0;
    int cbTime = 0;
    std::sscanf(strText.c_str(), "%4d-%2u-%2u%n", &nYear, &nMonth, &nDay, &cbDay);
    std::chrono::year_month_day const date{std::chrono::year(nYear), std::chrono::month(nMonth),
                                           std::chrono::day(nDay)};
    if (cbDay != 10 || !date.ok()) {
        return std::nullopt;
    }
    std::string strTime = strText.substr(10);
    if (!strTime.empty()) {
        std::sscanf(strTime.c_str(), "T%2u:%2u:%2u%n", &nHour, &nMinute, &nSecond, &cbTime);
        std::string const strRest = strTime.substr(static_cast<std::size_t>(cbTime));
        if (cbTime != 9 || nHour > 23 || nMinute > 59 || nSecond > 60 ||
            (!strRest.empty() && strRest != "Z")) {
            return std::nullopt;
        }
    }
    return std::chrono::sys_days(date) + std::chrono::hours(nHour) + std::chrono::minutes(nMinute) +
           std::chrono::seconds(nSecond);
}

int ShowEvents(HubSettings const &settings, EventsOptions const &options)
{
    std::string strError;
    auto const pJournal = CJournal::Look(settings.journal.strFile, &strError);
    if (pJournal == nullptr) {
        return Fail(strError, eHX_CANNOT_KEEP);
    }
    JournalQuery query;
    query.since = options.since;
    query.strDevice = options.strDevice;
    query.strType = options.strType;
    query.cMost = kAtOnce;
    while (true) {
        std::vector<HubEvent> events;
        if (!pJournal->Read(query, &events, &strError)) {
            return Fail(strError, eHX_CANNOT_KEEP);
        }
        for (HubEvent const &event : events) {
            query.dwAfter = event.dwPlace;
            if (!PrintLine(options.bJson ? event.strJson : HubEventLine(event))) {
                return Fail("cannot write to the standard output", eHX_OUTPUT);
            }
        }
        if (events.size() == kAtOnce) {
            continue;
        }
        if (!options.bFollow) {
            return eHX_DONE;
        }
        do {
            std::this_thread::sleep_for(kLook);
        } while (!pJournal->HasChanged());
    }
}

int ReplayEvents(HubSettings const &settings, std::string const &strSink,
                 system_clock::time_point tpSince)
{
    std::string strError;
    std::uint64_t cEvents = 0;
    auto const pJournal = CJournal::Look(settings.journal.strFile, &strError);
    if (pJournal == nullptr) {
        return Fail(strError, eHX_CANNOT_KEEP);
    }
    if (!pJournal->SetBack(strSink, tpSince, &cEvents, &strError)) {
        return Fail(strError, eHX_DATA);
    }
    std::printf("%s gets %llu events once more, as far as its rules let them through\n",
                strSink.c_str(), static_cast<unsigned long long>(cEvents));
    return std::fflush(stdout) == 0 ? eHX_DONE : eHX_OUTPUT;
}
