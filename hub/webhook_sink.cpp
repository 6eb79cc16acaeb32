#include "hub/webhook_sink.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>

using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr seconds kLongestPause{600};   // that a server may ask for
constexpr std::size_t kMaxAnswer = 200; // bytes of a refusal that are told
constexpr int kMaxPoll = 60'000;        // ms; the transfer's own limit ends the wait

struct EasyEnd {
    void operator()(CURL *p) const { curl_easy_cleanup(p); }
};
struct MultiEnd {
    void operator()(CURLM *p) const { curl_multi_cleanup(p); }
};
struct ListEnd {
    void operator()(curl_slist *p) const { curl_slist_free_all(p); }
};

CURL *NewEasy()
{
    // Once in a process, and before any other thread uses the library.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    return curl_easy_init();
}

std::size_t KeepAnswer(char *p, std::size_t cb, std::size_t n, void *pUser)
{
    auto &strAnswer = *static_cast<std::string *>(pUser);
    strAnswer.append(p, std::min(cb * n, kMaxAnswer - strAnswer.size()));
    return cb * n;
}

// The answer's beginning on one line.
std::string OneLine(std::string str)
{
    std::replace_if(
        str.begin(), str.end(), [](unsigned char ch) { return ch < ' '; }, ' ');
    str.erase(str.find_last_not_of(' ') + 1);
    return str;
}

HubOutcomeType OutcomeOf(long nStatus)
{
    if (nStatus >= 200 && nStatus < 300) {
        return eHO_TAKEN;
    }
    bool const bLater =
        nStatus == 408 || nStatus == 425 || nStatus == 429 || nStatus >= 500 || nStatus < 400;
    return bLater ? eHO_LATER : eHO_REFUSED;
}

} // namespace

class CWebhookSinkImpl {
public:
    explicit CWebhookSinkImpl(HubWebhookSettings const &settings);

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy);
    void Stop();

private:
    void AddHeader(std::string const &strLine);
    CURLcode Post(std::string const &strBody);
    CURLcode Finish();
    HubOutcomeType Judge(std::string *pstrWhy);

    HubWebhookSettings const m_settings;
    std::unique_ptr<CURLM, MultiEnd> const m_pMulti{curl_multi_init()};
    std::unique_ptr<CURL, EasyEnd> const m_pEasy{NewEasy()};
    std::unique_ptr<curl_slist, ListEnd> m_pHeaders;
    char m_szError[CURL_ERROR_SIZE] = "";
    std::string m_strAnswer;
    steady_clock::time_point m_tpNotBefore; // what the server has asked for
    std::atomic<bool> m_bStopped{false};
};

CWebhookSinkImpl::CWebhookSinkImpl(HubWebhookSettings const &settings) : m_settings(settings)
{
    CURL *const p = m_pEasy.get();
    if (!p || !m_pMulti) {
        throw std::bad_alloc();
    }
    AddHeader("Content-Type: application/cloudevents+json; charset=utf-8");
    AddHeader("Expect:"); // the body is small: no question before it
    for (std::string const &strLine : m_settings.rgstrHeader) {
        AddHeader(strLine);
    }
    curl_easy_setopt(p, CURLOPT_URL, m_settings.strUrl.c_str());
    curl_easy_setopt(p, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(p, CURLOPT_HTTPHEADER, m_pHeaders.get());
    curl_easy_setopt(p, CURLOPT_USERAGENT, "notifyhub");
    curl_easy_setopt(p, CURLOPT_TIMEOUT_MS, static_cast<long>(m_settings.limit.count()));
    curl_easy_setopt(p, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(p, CURLOPT_ERRORBUFFER, m_szError);
    curl_easy_setopt(p, CURLOPT_WRITEFUNCTION, KeepAnswer);
    curl_easy_setopt(p, CURLOPT_WRITEDATA, &m_strAnswer);
    if (!m_settings.strCaFile.empty()) {
        // These and no others: somebody who names a file trusts nobody else.
        curl_easy_setopt(p, CURLOPT_CAINFO, m_settings.strCaFile.c_str());
        curl_easy_setopt(p, CURLOPT_CAPATH, nullptr);
    }
}

void CWebhookSinkImpl::AddHeader(std::string const &strLine)
{
    curl_slist *const p = curl_slist_append(m_pHeaders.get(), strLine.c_str());
    if (!p) {
        throw std::bad_alloc();
    }
    static_cast<void>(m_pHeaders.release());
    m_pHeaders.reset(p);
}

void CWebhookSinkImpl::Stop()
{
    m_bStopped = true;
    curl_multi_wakeup(m_pMulti.get());
}

CURLcode CWebhookSinkImpl::Post(std::string const &strBody)
{
    m_szError[0] = '\0';
    m_strAnswer.clear();
    curl_easy_setopt(m_pEasy.get(), CURLOPT_POSTFIELDS, strBody.c_str());
    curl_easy_setopt(m_pEasy.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(strBody.size()));
    curl_multi_add_handle(m_pMulti.get(), m_pEasy.get());
    CURLcode const eResult = Finish();
    curl_multi_remove_handle(m_pMulti.get(), m_pEasy.get());
    return eResult;
}

// The request's result; it has a time limit of its own.
CURLcode CWebhookSinkImpl::Finish()
{
    while (!m_bStopped) {
        int cRunning = 0;
        if (curl_multi_perform(m_pMulti.get(), &cRunning) != CURLM_OK) {
            return CURLE_FAILED_INIT;
        }
        int cLeft = 0;
        while (CURLMsg const *const pMessage = curl_multi_info_read(m_pMulti.get(), &cLeft)) {
            if (pMessage->msg == CURLMSG_DONE) {
                return pMessage->data.result;
            }
        }
        curl_multi_poll(m_pMulti.get(), nullptr, 0, kMaxPoll, nullptr);
    }
    return CURLE_ABORTED_BY_CALLBACK;
}

// What the server's answer means.
HubOutcomeType CWebhookSinkImpl::Judge(std::string *pstrWhy)
{
    long nStatus = 0;
    curl_easy_getinfo(m_pEasy.get(), CURLINFO_RESPONSE_CODE, &nStatus);
    HubOutcomeType const eOutcome = OutcomeOf(nStatus);
    if (eOutcome == eHO_TAKEN) {
        return eOutcome;
    }
    *pstrWhy = "the server answered " + std::to_string(nStatus);
    if (std::string const strAnswer = OneLine(m_strAnswer); !strAnswer.empty()) {
        *pstrWhy += ": " + strAnswer;
    }
    if (curl_off_t nPause = 0;
        (nStatus == 429 || nStatus == 503) &&
        curl_easy_getinfo(m_pEasy.get(), CURLINFO_RETRY_AFTER, &nPause) == CURLE_OK && nPause > 0) {
        auto const pause = std::min(seconds(nPause), kLongestPause);
        m_tpNotBefore = steady_clock::now() + pause;
        *pstrWhy += ", and asks for a pause of " + std::to_string(pause.count()) + " s";
    }
    return eOutcome;
}

HubOutcomeType CWebhookSinkImpl::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    if (m_bStopped) {
        *pstrWhy = "the end is near";
        return eHO_LATER;
    }
    if (steady_clock::now() < m_tpNotBefore) {
        *pstrWhy = "the server has asked for a pause";
        return eHO_LATER;
    }
    CURLcode const eResult = Post(event.strJson);
    if (m_bStopped && eResult != CURLE_OK) {
        *pstrWhy = "the end is near";
        return eHO_LATER;
    }
    if (eResult != CURLE_OK) {
        *pstrWhy = m_szError[0] ? m_szError : curl_easy_strerror(eResult);
        return eHO_LATER;
    }
    return Judge(pstrWhy);
}

// ---- The public face

CWebhookSink::CWebhookSink(HubWebhookSettings const &settings)
    : m_pImpl(std::make_unique<CWebhookSinkImpl>(settings))
{
}

CWebhookSink::~CWebhookSink() = default;

HubOutcomeType CWebhookSink::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    return m_pImpl->Deliver(event, pstrWhy);
}

void CWebhookSink::Stop()
{
    m_pImpl->Stop();
}
