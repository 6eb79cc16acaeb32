#include "session/session_event.h"

#include "platform/check.h"
#include "session/option_text.h"

#include <algorithm>

namespace {

constexpr char kAddressKey[] = "NETADDR=";
constexpr char kAnswerHead[] = "TYPE=<ECHO>;";

// The entry's text as the agent's clauses follow it.
std::string WithSeparator(std::string const &strEntry)
{
    return strEntry.ends_with(';') ? strEntry : strEntry + ";";
}

std::string OwnText(std::string const &strOption, std::vector<std::string> const &entries)
{
    // The last one: the entry itself may hold anything, and the device adds no such clause.
    std::string const strHead = strOption.substr(0, strOption.rfind(kAddressKey));
    for (std::string const &strEntry : entries) {
        if (strHead == WithSeparator(strEntry)) {
            return strEntry;
        }
    }
    return strHead.ends_with(';') ? strHead.substr(0, strHead.size() - 1) : strHead;
}

} // namespace

void ReadOption(Notification &notification, std::vector<std::string> const &entries)
{
    std::string const &strOption = notification.strOption;
    notification.sequence = KickSequence(strOption);
    if (strOption.starts_with(kAnswerHead)) {
        notification.srvq = NumberOfClause(strOption, "SRVQ=");
        notification.strModel = ClauseOf(strOption, "MODEL=").value_or("");
    } else {
        notification.strText = OwnText(strOption, entries);
    }
}

void CEventQueue::Put(SessionEvent event)
{
    {
        CPlatGuard const lock(m_mx);
        m_events.push_back(std::move(event));
        if (m_events.size() > m_cLimit) {
            m_events.pop_front();
            ++m_cDropped;
        }
        PLAT_CHECK(m_events.size() <= m_cLimit);
    }
    m_cv.notify_all();
}

std::optional<SessionEvent> CEventQueue::Take(SessionTime tpEnd)
{
    CPlatWaitGuard lock(m_mx);
    m_cv.wait_until(lock.Native(), tpEnd, [this]() PLAT_REQUIRES(m_mx) {
        return m_bStopped || m_cDropped > 0 || !m_events.empty();
    });
    if (m_bStopped) {
        return std::nullopt;
    }
    if (m_cDropped > 0) {
        return SessionEvent{"", std::chrono::system_clock::now(),
                            DroppedEvents{std::exchange(m_cDropped, 0)}};
    }
    if (m_events.empty()) {
        return std::nullopt;
    }
    SessionEvent event = std::move(m_events.front());
    m_events.pop_front();
    return event;
}

void CEventQueue::Stop()
{
    {
        CPlatGuard const lock(m_mx);
        m_bStopped = true;
    }
    m_cv.notify_all();
}

bool CEventQueue::IsStopped() const
{
    CPlatGuard const lock(m_mx);
    return m_bStopped;
}

std::uint64_t CEventQueue::NotificationsLeft() const
{
    CPlatGuard const lock(m_mx);
    auto const cWaiting =
        std::count_if(m_events.begin(), m_events.end(), [](SessionEvent const &event) {
            return std::holds_alternative<Notification>(event.what);
        });
    return m_cDropped + static_cast<std::uint64_t>(cWaiting);
}
