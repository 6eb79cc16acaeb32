#include "tools/notifymon_client.h"

#include <array>
#include <atomic>
#include <cstdio>

namespace {

std::atomic<CMonitorClient *> g_pClient{nullptr};

struct PlainSubscription {
    DWORD dwFlag;
    char const *pszName;
};

constexpr std::array kPlainSubscriptions{
    PlainSubscription{eNF_ADF, "the document feeder"},
    PlainSubscription{eNF_SCANNER_BUTTON, "the scanner button"},
    PlainSubscription{eNF_FAX_UPLOAD, "fax upload"},
};

void TellFailure(std::string const &strWhat, DWORD dwResult)
{
    std::fprintf(stderr, "notifymon: cannot subscribe to %s: %s\n", strWhat.c_str(),
                 ResultText(dwResult).c_str());
}

} // namespace

CMonitorClient::CMonitorClient(MonitorOptions options) : m_options(std::move(options))
{
    for (auto const &strOption : m_options.rgstrOption) {
        m_entries.push_back({strOption, 0, false});
    }
    g_pClient = this;
    m_pAgent = std::make_unique<CNotifyAgent>(&CMonitorClient::OnNotification, 0);
}

CMonitorClient::~CMonitorClient()
{
    Disconnect();
    m_pAgent.reset();
    g_pClient = nullptr;
}

DWORD CMonitorClient::Connect()
{
    char const *pszAddress = m_options.strAddress.empty() ? nullptr : m_options.strAddress.c_str();
    return m_pAgent->Init(pszAddress, m_options.dwPort, m_options.bLocal ? 0 : 1);
}

DWORD CMonitorClient::Subscribe()
{
    DWORD dwFirst = 0;
    auto const note = [&dwFirst](std::string const &strWhat, DWORD dwResult) {
        if (dwResult != 0) {
            TellFailure(strWhat, dwResult);
            dwFirst = dwFirst != 0 ? dwFirst : dwResult;
        }
        return dwResult == 0;
    };
    if ((m_options.dwFlags & eNF_SELECT) != 0) {
        for (auto &entry : m_entries) {
            entry.bPlaced =
                note("the panel entry \"" + entry.strOption + "\"",
                     m_pAgent->Add(&entry.dwInstance, eNF_SELECT, entry.strOption.c_str()));
        }
    }
    m_dwSubscribed = 0;
    for (auto const &plain : kPlainSubscriptions) {
        if ((m_options.dwFlags & plain.dwFlag) != 0 &&
            note(plain.pszName, m_pAgent->Add(nullptr, plain.dwFlag, nullptr))) {
            m_dwSubscribed |= plain.dwFlag;
        }
    }
    return dwFirst;
}

void CMonitorClient::Unsubscribe()
{
    // The device may be gone by now; Shutdown ends what it still holds of ours.
    for (auto &entry : m_entries) {
        if (entry.bPlaced) {
            (void)m_pAgent->Delete(entry.dwInstance, eNF_SELECT, entry.strOption.c_str());
            entry.bPlaced = false;
        }
    }
    for (auto const &plain : kPlainSubscriptions) {
        if ((m_dwSubscribed & plain.dwFlag) != 0) {
            (void)m_pAgent->Delete(0, plain.dwFlag, nullptr);
        }
    }
    m_dwSubscribed = 0;
}

void CMonitorClient::Disconnect()
{
    (void)m_pAgent->Shutdown(); // "not connected" is what we want
}

DWORD CMonitorClient::Discover(std::string const &strTarget, DWORD *pdwSequence)
{
    return m_pAgent->InitiateSrvQDiscovery(pdwSequence, strTarget.c_str());
}

std::optional<Notification> CMonitorClient::Next(std::chrono::steady_clock::time_point tpEnd)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, tpEnd, [this] { return m_bStopped || !m_waiting.empty(); });
    if (m_waiting.empty()) {
        return std::nullopt;
    }
    Notification notification = std::move(m_waiting.front());
    m_waiting.pop_front();
    return notification;
}

void CMonitorClient::Stop()
{
    {
        std::lock_guard const lock(m_mutex);
        m_bStopped = true;
    }
    m_changed.notify_all();
}

bool CMonitorClient::IsStopped()
{
    std::lock_guard const lock(m_mutex);
    return m_bStopped;
}

DWORD CMonitorClient::OnNotification(CallbackType eType, CallbackDataType *pData)
{
    // Out of memory loses this one notification; an exception must not enter the agent's thread.
    try {
        g_pClient.load()->Enqueue({eType, pData->dwNotifyCode, pData->nValue, pData->dwValue,
                                   static_cast<char const *>(pData->strOption),
                                   static_cast<char const *>(pData->strSenderAddress),
                                   static_cast<char const *>(pData->strSenderName)});
    } catch (std::bad_alloc const &) {
        std::fputs("notifymon: out of memory, a notification is lost\n", stderr);
    }
    return 0;
}

void CMonitorClient::Enqueue(Notification notification)
{
    {
        std::lock_guard const lock(m_mutex);
        m_waiting.push_back(std::move(notification));
    }
    m_changed.notify_all();
}
