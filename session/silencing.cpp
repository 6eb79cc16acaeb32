#include "session/silencing.h"

#include <climits>

namespace {

// A restart drops what the agent has queued: datagrams that come in one go are let through first.
constexpr std::chrono::milliseconds kRestartDelay{250};
constexpr std::chrono::seconds kCalmAfterRestart{
    60}; // so long without one, and the pauses begin anew
// The device counts all its datagrams, not only ours. Between two of ours it does not send so many.
constexpr DWORD kLargestStep = 1000000;

} // namespace

bool CSilencing::Hides(DWORD dwSequence, bool bOurs)
{
    CPlatGuard const lock(m_mx);
    bool const bStep = m_dwLastSequence == 0 || dwSequence - m_dwLastSequence <= kLargestStep;
    bool const bFits = bStep && dwSequence < INT_MAX && bOurs;
    if (bFits) {
        m_dwLastSequence = dwSequence;
    }
    return !bFits;
}

bool CSilencing::Note(std::string strHow)
{
    CPlatGuard const lock(m_mx);
    if (m_silenced) {
        return false;
    }
    SessionTime const now = SessionClock::now();
    bool const bCalm =
        m_tpLastRestart == SessionTime{} || now - m_tpLastRestart > kCalmAfterRestart;
    if (bCalm) {
        m_pause.Reset();
    }
    m_silenced = {std::move(strHow), bCalm ? now + kRestartDelay : m_pause.Next()};
    return true;
}

std::optional<SessionTime> CSilencing::RestartAt() const
{
    CPlatGuard const lock(m_mx);
    return m_silenced ? std::optional(m_silenced->tpRestart) : std::nullopt;
}

std::optional<std::string> CSilencing::BeginRestart()
{
    CPlatGuard const lock(m_mx);
    if (!m_silenced) {
        return std::nullopt;
    }
    m_tpLastRestart = SessionClock::now();
    return std::move(m_silenced->strHow);
}

void CSilencing::Forget()
{
    CPlatGuard const lock(m_mx);
    m_silenced.reset();
    m_dwLastSequence = 0;
}
