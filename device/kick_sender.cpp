#include "device/kick_sender.h"

#include "platform/check.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxWaiting = 4096;
// How long one that is to be overtaken waits for another one to come.
constexpr std::chrono::milliseconds kHoldTime{1000};

} // namespace

void CKickSender::SetPace(std::chrono::milliseconds interval, unsigned cTries)
{
    m_interval = interval;
    m_cMaxTries = cTries;
}

void CKickSender::SetOdds(KickOdds const &odds)
{
    m_odds = odds;
    m_random.seed(odds.nSeed);
}

std::optional<DWORD> CKickSender::Add(LinkAddress const &to, std::string const &strText,
                                      DWORD dwPick)
{
    if (strText.size() > kMaxText || m_cWaiting == kMaxWaiting) {
        return std::nullopt;
    }
    Kick kick;
    kick.dwSequence = ++m_dwLastSequence;
    kick.dwPick = dwPick;
    kick.strDatagram = strText;
    if (!strText.empty() && strText.back() != ';') {
        kick.strDatagram += ';';
    }
    kick.strDatagram += "KICKSEQ=" + std::to_string(kick.dwSequence) + ";";
    m_waiting[to].push_back(std::move(kick));
    ++m_cWaiting;
    return m_dwLastSequence;
}

bool CKickSender::Echo(WORD wFromPort, std::string const &strBytes)
{
    for (auto it = m_waiting.begin(); it != m_waiting.end(); ++it) {
        Kicks &kicks = it->second;
        auto const itKick = std::find_if(kicks.begin(), kicks.end(), [&](Kick const &kick) {
            return kick.cTries > 0 && kick.strDatagram == strBytes;
        });
        if (it->first.wPort != wFromPort || itKick == kicks.end()) {
            continue;
        }
        if (Misbehaves(&m_next.cLoseEcho, m_odds.dLoseEcho)) {
            Report(eEV_KICK_ECHO_LOST, it->first, *itKick);
            return false;
        }
        Report(eEV_KICK_ECHOED, it->first, *itKick);
        kicks.erase(itKick);
        Uncount();
        if (kicks.empty()) {
            m_waiting.erase(it);
        }
        return true;
    }
    return false;
}

void CKickSender::Uncount()
{
    PLAT_CHECK(m_cWaiting > 0);
    --m_cWaiting;
}

LinkTime CKickSender::Run(LinkTime now)
{
    LinkTime next = LinkTime::max();
    for (auto it = m_waiting.begin(); it != m_waiting.end();) {
        next = std::min(next, RunOne(it->first, it->second, now));
        it = it->second.empty() ? m_waiting.erase(it) : std::next(it);
    }
    PLAT_CHECK(Waiting().size() == m_cWaiting);
    return next;
}

// The first of the list is the one under way. One that is held back shares its turn with the next.
LinkTime CKickSender::RunOne(LinkAddress const &to, Kicks &kicks, LinkTime now)
{
    while (!kicks.empty()) {
        HoldBack(to, kicks.front(), now);
        ReleaseIfOvertaken(kicks, now);
        auto it = kicks.begin();
        if (it->fHeld && std::next(it) != kicks.end()) {
            ++it;
        }
        if (it->fHeld) {
            return it->due;
        }
        if (Serve(to, *it, now)) {
            if (!kicks.front().fHeld) {
                return it->due;
            }
            continue; // it has overtaken the first, whose turn this is
        }
        kicks.erase(it);
        Uncount();
    }
    return LinkTime::max();
}

void CKickSender::HoldBack(LinkAddress const &to, Kick &kick, LinkTime now)
{
    if (!kick.fMayBeHeld) {
        return;
    }
    kick.fMayBeHeld = false;
    if (!Misbehaves(&m_next.cReorder, m_odds.dReorder)) {
        return;
    }
    kick.fHeld = true;
    kick.due = now + kHoldTime;
    Report(eEV_KICK_HELD_BACK, to, kick);
}

void CKickSender::ReleaseIfOvertaken(Kicks &kicks, LinkTime now)
{
    Kick &first = kicks.front();
    bool const fOvertaken = kicks.size() > 1 && std::next(kicks.begin())->cTries > 0;
    if (first.fHeld && (fOvertaken || now >= first.due)) {
        first.fHeld = false;
        first.due = now;
    }
}

bool CKickSender::Serve(LinkAddress const &to, Kick &kick, LinkTime now)
{
    if (now < kick.due) {
        return true;
    }
    if (kick.cTries >= m_cMaxTries) {
        Report(eEV_KICK_GIVEN_UP, to, kick);
        return false;
    }
    kick.fMayBeHeld = false; // it has its turn, or has taken another's
    ++kick.cTries;
    kick.due = now + m_interval;
    Report(eEV_KICK_SENT, to, kick);
    Transmit(to, kick);
    return true;
}

void CKickSender::Transmit(LinkAddress const &to, Kick const &kick)
{
    if (Misbehaves(&m_next.cDrop, m_odds.dDrop)) {
        Report(eEV_KICK_DROPPED, to, kick);
        return;
    }
    m_send(to, kick.strDatagram);
    if (Misbehaves(&m_next.cRepeat, m_odds.dRepeat)) {
        Report(eEV_KICK_REPEATED, to, kick);
        m_send(to, kick.strDatagram);
    }
}

bool CKickSender::Misbehaves(unsigned *pcNext, double dOdds)
{
    if (*pcNext > 0) {
        --*pcNext;
        return true;
    }
    return dOdds > 0 && std::uniform_real_distribution<>(0, 1)(m_random) < dOdds;
}

void CKickSender::Report(DeviceEventKind eKind, LinkAddress const &to, Kick const &kick)
{
    DeviceEvent event{eKind,
                      {{"sequence", kick.dwSequence},
                       {"address", FormatAddress(to)},
                       {"try", kick.cTries},
                       {"text", kick.strDatagram}}};
    if (kick.dwPick != 0) {
        DeviceEventField const pick{"pick", kick.dwPick};
        event.fields.push_back(pick);
    }
    m_onEvent(event);
}

std::vector<KickStatus> CKickSender::Waiting() const
{
    std::vector<KickStatus> all;
    for (auto const &[to, kicks] : m_waiting) {
        for (Kick const &kick : kicks) {
            all.push_back({kick.dwSequence, to, kick.strDatagram, kick.cTries});
        }
    }
    return all;
}
