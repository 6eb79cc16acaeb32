#include "tools/mfpsim_player.h"

#include "device/device_objects.h"
#include "device/discovery_job.h"
#include "devlink/link_protocol.h"
#include "tools/tape_mask.h"

#include <algorithm>

using std::chrono::milliseconds;

namespace {

// However fast a tape is played: what a client learns over two roads must not overtake itself.
constexpr double kLeastPauseMs = 20;
// A client that does not do what it did on the tape is waited for, as it has pauses of its own.
constexpr milliseconds kPatience{20000};
constexpr milliseconds kEchoPatience{5000};
constexpr milliseconds kSendAgain{500};
constexpr char kSequence[] = "KICKSEQ=";

LinkClock::duration Milliseconds(double d)
{
    return std::chrono::duration_cast<LinkClock::duration>(
        std::chrono::duration<double, std::milli>(d));
}

DWORD ResultOf(TapeItem const *pAnswer)
{
    return pAnswer ? CLinkReader(pAnswer->frame.payload).Word32() : DWORD{eLR_FAILED};
}

// As it begins the datagrams of its picks.
std::string Ended(std::string const &strText)
{
    return strText.empty() || strText.back() == ';' ? strText : strText + ";";
}

} // namespace

// ---- Taking the tape apart

CTapePlayer::CTapePlayer(Tape const &tape, unsigned nDevice, double dSpeed, DepartFn onDeparture)
    : m_tape(tape), m_dSpeed(dSpeed), m_onDeparture(std::move(onDeparture))
{
    Answers answers;
    std::map<std::pair<DWORD, DWORD>, TapeItem const *> asked;
    for (TapeItem const &item : tape.items) {
        std::pair const key{item.dwLink, item.frame.dwNumber};
        if (item.nDevice != nDevice || item.eKind != eTK_FRAME) {
            continue;
        }
        if (item.fFromClient) {
            asked[key] = &item;
        } else if ((item.frame.kind & kLinkAnswerBit) != 0 && asked.contains(key)) {
            answers[asked[key]] = &item;
        }
    }
    for (TapeItem const &item : tape.items) {
        if (item.nDevice == nDevice) {
            AddItem(item, answers);
        }
    }
}

void CTapePlayer::AddStep(Step::Kind eKind, TapeItem const &item, std::size_t nTrack)
{
    if (eKind != Step::eALL) {
        m_tracks[nTrack].steps.push_back(m_steps.size());
    }
    m_cSends += eKind >= Step::eSEND_FRAME ? 1 : 0;
    Step step{eKind, &item};
    step.nTrack = nTrack;
    m_steps.push_back(step);
}

void CTapePlayer::AddItem(TapeItem const &item, Answers const &answers)
{
    if (item.eKind == eTK_UP) {
        m_trackOf[item.dwLink] = m_tracks.size();
        m_tracks.emplace_back();
        m_tracks.back().fNetwork = item.fNetwork;
        m_tracks.back().strAddress = item.strAddress;
        return AddStep(Step::eUP, item, m_tracks.size() - 1);
    }
    if (m_tracks.empty()) {
        return; // nobody was there
    }
    if (item.eKind == eTK_CUT || item.eKind == eTK_GARBAGE) {
        return AddStep(Step::eALL, item, 0);
    }
    if (item.eKind == eTK_DATAGRAM) {
        return AddDatagram(item);
    }
    auto const it = m_trackOf.find(item.dwLink);
    if (it == m_trackOf.end()) {
        return; // of one that only looked whether the device is there
    }
    if (item.eKind == eTK_DOWN) {
        AddStep(item.fFromClient ? Step::eHANG_UP : Step::eDROP, item, it->second);
    } else if (item.fFromClient) {
        auto const answer = answers.find(&item);
        AddRequest(item, answer == answers.end() ? nullptr : answer->second);
    } else if (item.frame.kind == eLK_TRAP_VALUE) {
        AddStep(Step::eSEND_FRAME, item, it->second);
    } else {
        AddAnswer(item);
    }
}

// One that came behind something else has its place in the order: its client was waiting meanwhile.
void CTapePlayer::AddAnswer(TapeItem const &item)
{
    auto const it = m_awaited.find(&item);
    if (it == m_awaited.end() || it->second.second == m_cSends) {
        return;
    }
    std::size_t const nRequest = it->second.first;
    m_steps[nRequest].fAnsweredLater = true;
    AddStep(Step::eANSWER, item, m_steps[nRequest].nTrack);
    m_steps.back().nRequest = nRequest;
}

void CTapePlayer::AddRequest(TapeItem const &item, TapeItem const *pAnswer)
{
    std::size_t const nTrack = m_trackOf[item.dwLink];
    Asked const asked = Read(item.frame);
    bool const fClaim = asked.nRow == eDO_SCAN_TOKEN && pAnswer != nullptr;
    bool const fChange =
        asked.kind == eLK_SET || asked.kind == eLK_TRAP || asked.kind == eLK_UNTRAP;
    if (!fChange || (ResultOf(pAnswer) != eLR_OK && !fClaim)) {
        m_tracks[nTrack].questions.push_back({&item, pAnswer});
        return;
    }
    AddStep(Step::eREQUEST, item, nTrack);
    m_steps.back().pAnswer = pAnswer;
    m_awaited[pAnswer] = {m_steps.size() - 1, m_cSends};
    if (asked.nRow == eDO_UI_ADD_OPTION) {
        m_tracks[nTrack].entries.emplace_back(asked.strText, "");
    }
}

// Belongs to the latest link whose entry it begins with; an echo to where its datagram belongs.
void CTapePlayer::AddDatagram(TapeItem const &item)
{
    for (std::size_t n = m_tracks.size(); n-- > 0;) {
        for (auto const &[strText, strToday] : m_tracks[n].entries) {
            std::string const strBegin = Ended(strText) + kSequence;
            if (item.strBytes.compare(0, strBegin.size(), strBegin) == 0) {
                return AddStep(item.fFromClient ? Step::eECHO : Step::eSEND_DATAGRAM, item, n);
            }
        }
    }
    m_cLeftOut += item.fFromClient ? 0 : 1;
}

// ---- Requests

CTapePlayer::Asked CTapePlayer::Read(LinkFrame const &frame)
{
    Asked asked;
    asked.kind = frame.kind;
    if (frame.kind < eLK_GET || frame.kind > eLK_UNTRAP) {
        asked.rest = frame.payload;
        return asked;
    }
    CLinkReader reader(frame.payload);
    asked.oid = reader.Bytes8();
    asked.nRow = FindDeviceObject(asked.oid);
    if (frame.kind == eLK_GET) {
        asked.rest = {reader.Byte()};
    } else if (frame.kind == eLK_SET) {
        static_cast<void>(reader.Byte());
        asked.rest = reader.Bytes32();
        asked.fEntry = asked.nRow == eDO_UI_ADD_OPTION || asked.nRow == eDO_UI_DELETE_OPTION;
        if (asked.fEntry) {
            asked.strText.assign(asked.rest.begin(), asked.rest.end());
            asked.rest.clear();
        } else if (asked.nRow == eDO_SCAN_TOKEN) { // whose it is does not matter
            bool const fFree =
                std::all_of(asked.rest.begin(), asked.rest.end(), [](BYTE b) { return b == 0; });
            asked.rest = {static_cast<BYTE>(fFree ? 0 : 1)};
        }
    }
    return asked;
}

// Addresses and instances differ from run to run, and texts have stand-ins: the first to come with a new one
// is taken for whom it stands for.
bool CTapePlayer::Fits(LinkFrame const &ofTape, Asked const &asked) const
{
    Asked const other = Read(ofTape);
    if (other.kind != asked.kind || other.oid != asked.oid || other.rest != asked.rest) {
        return false;
    }
    std::string const strTape = OwnPartOf(other.strText);
    std::string const strToday = OwnPartOf(asked.strText);
    if (!asked.fEntry || !m_tape.fTextsMasked) {
        return strTape == strToday;
    }
    auto const it = m_own.find(strTape);
    return it == m_own.end() ? !m_ownToday.contains(strToday) : it->second == strToday;
}

CTapePlayer::Step *CTapePlayer::FindRequest(Track &track, Asked const &asked)
{
    for (std::size_t const n : track.steps) {
        Step &step = m_steps[n];
        if (step.eKind == Step::eREQUEST && !step.fDone && Fits(step.pItem->frame, asked)) {
            return &step;
        }
    }
    return nullptr;
}

// The next one on the tape from where it is now, else the last one.
CTapePlayer::Question *CTapePlayer::FindQuestion(Track &track, Asked const &asked)
{
    double const dNow = m_nNext == 0 ? 0 : m_steps[m_nNext - 1].pItem->dTime;
    Question *pFound = nullptr;
    for (Question &question : track.questions) {
        if (!Fits(question.pItem->frame, asked)) {
            continue;
        }
        pFound = &question;
        if (!question.fUsed && question.pItem->dTime >= dNow) {
            break;
        }
    }
    return pFound;
}

// Whether a link that has asked all that could have the track's place.
bool CTapePlayer::FitsAll(Track const &track, std::vector<LinkFrame> const &history) const
{
    std::set<std::size_t> used;
    return std::all_of(history.begin(), history.end(), [&](LinkFrame const &frame) {
        Asked const asked = Read(frame);
        auto const it = std::find_if(track.steps.begin(), track.steps.end(), [&](std::size_t n) {
            return m_steps[n].eKind == Step::eREQUEST && !used.contains(n) &&
                   Fits(m_steps[n].pItem->frame, asked);
        });
        return it != track.steps.end() && used.insert(*it).second;
    });
}

// Whether the device has sent it something by itself.
bool CTapePlayer::HasHeard(Track const &track) const
{
    return std::any_of(track.steps.begin(), track.steps.end(), [&](std::size_t n) {
        return m_steps[n].fDone && m_steps[n].eKind == Step::eSEND_FRAME;
    });
}

void CTapePlayer::Reset(Track &track)
{
    for (std::size_t const n : track.steps) {
        m_steps[n].fDone = m_steps[n].fDone && m_steps[n].eKind != Step::eREQUEST;
    }
    for (auto &[strTape, strToday] : track.entries) {
        strToday.clear();
    }
    track.trapIds.clear();
}

// Clients that come at once, after a cut above all, come in any order: who is who shows when they differ.
bool CTapePlayer::TradePlaces(Track &track, LinkFrame const &frame)
{
    std::vector<LinkFrame> history = track.history;
    history.push_back(frame);
    for (Track &other : m_tracks) {
        if (&other == &track || other.fOver || other.fNetwork != track.fNetwork ||
            HasHeard(other) || HasHeard(track) || !FitsAll(other, history) ||
            !FitsAll(track, other.history)) {
            continue;
        }
        std::swap(track.dwLink, other.dwLink);
        std::swap(track.history, other.history);
        for (Track *const p : {&track, &other}) {
            m_steps[p->steps.front()].fDone = p->dwLink != 0;
            Reset(*p);
            for (LinkFrame const &past : std::exchange(p->history, {})) {
                Asked const asked = Read(past);
                Take(*p, *FindRequest(*p, asked), asked, past, LinkClock::now());
            }
        }
        return true;
    }
    return false;
}

void CTapePlayer::Take(Track &track, Step &step, Asked const &asked, LinkFrame const &frame,
                       LinkTime now)
{
    step.fDone = true;
    step.at = now;
    step.dwNumber = frame.dwNumber;
    track.history.push_back(frame);
    Asked const ofTape = Read(step.pItem->frame);
    if (asked.nRow == eDO_UI_ADD_OPTION) {
        m_own[OwnPartOf(ofTape.strText)] = OwnPartOf(asked.strText);
        m_ownToday.insert(OwnPartOf(asked.strText));
        auto const it = std::find(track.entries.begin(), track.entries.end(),
                                  std::pair<std::string, std::string>(ofTape.strText, ""));
        if (it != track.entries.end()) {
            it->second = asked.strText;
        }
    } else if (asked.kind == eLK_TRAP) {
        auto const trapIdOf = [](LinkFrame const &request) {
            CLinkReader reader(request.payload);
            reader.Bytes8();
            reader.Byte();
            return reader.Word16();
        };
        track.trapIds[trapIdOf(step.pItem->frame)] = trapIdOf(frame);
    }
}

std::optional<DeviceReply> CTapePlayer::Reply(LinkFrame const &request, TapeItem const &item,
                                              TapeItem const *pAnswer) const
{
    if (!pAnswer) {
        return std::nullopt;
    }
    auto const delay = std::chrono::duration_cast<milliseconds>(
        Milliseconds(pAnswer->dTime - item.dTime) / m_dSpeed);
    return DeviceReply{{pAnswer->frame.kind, request.dwNumber, pAnswer->frame.payload}, delay};
}

// Whoever asks for what is not on the tape gets it, that it may go on.
DeviceReply CTapePlayer::Unforeseen(Track const *pTrack, LinkFrame const &frame)
{
    std::string strThere = "the tape has no such client";
    if (pTrack) {
        auto const it =
            std::find_if(pTrack->steps.begin(), pTrack->steps.end(), [&](std::size_t n) {
                return m_steps[n].eKind == Step::eREQUEST && !m_steps[n].fDone;
            });
        strThere = it == pTrack->steps.end()
                       ? "no more of its link is on the tape"
                       : "on the tape comes, in line " + std::to_string(m_steps[*it].pItem->nLine) +
                             ", " + FrameText(m_steps[*it].pItem->frame);
    }
    Depart(0, FrameText(frame) + "; " + strThere);
    bool const fChange =
        frame.kind == eLK_SET || frame.kind == eLK_TRAP || frame.kind == eLK_UNTRAP;
    CLinkWriter writer;
    writer.Word32(fChange ? eLR_OK : eLR_FAILED);
    return {{static_cast<BYTE>(frame.kind | kLinkAnswerBit), frame.dwNumber, writer.Take()}, {}};
}

std::optional<DeviceReply> CTapePlayer::Request(LinkTime now, DWORD dwLink, LinkFrame const &frame)
{
    Asked const asked = Read(frame);
    Track *const pTrack = FindTrack(dwLink);
    if (pTrack) {
        Step *const pStep = FindRequest(*pTrack, asked);
        if (pStep) {
            Take(*pTrack, *pStep, asked, frame, now);
            if (pStep->fAnsweredLater) {
                return std::nullopt;
            }
            return Reply(frame, *pStep->pItem, pStep->pAnswer);
        }
        if (Question *const pQuestion = FindQuestion(*pTrack, asked)) {
            pQuestion->fUsed = true;
            return Reply(frame, *pQuestion->pItem, pQuestion->pAnswer);
        }
        if (TradePlaces(*pTrack, frame)) {
            return Request(now, dwLink, frame);
        }
    }
    for (Track &track : m_tracks) { // the same of another client
        Question const *const pQuestion = FindQuestion(track, asked);
        if (pQuestion && pQuestion->pAnswer) {
            return Reply(frame, *pQuestion->pItem, pQuestion->pAnswer);
        }
    }
    if (frame.kind == eLK_PING) {
        CLinkWriter writer;
        return DeviceReply{
            {eLK_PING | kLinkAnswerBit, frame.dwNumber, writer.Word32(eLR_OK).Take()}, {}};
    }
    return Unforeseen(pTrack, frame);
}

// ---- Links

CTapePlayer::Track *CTapePlayer::FindTrack(DWORD dwLink)
{
    auto const it = std::find_if(m_tracks.begin(), m_tracks.end(), [&](Track const &track) {
        return track.dwLink == dwLink && !track.fOver;
    });
    return it == m_tracks.end() ? nullptr : &*it;
}

void CTapePlayer::LinkUp(LinkTime now, DWORD dwLink, bool fNetwork, std::string const &strAddress)
{
    Track *pFound = nullptr;
    for (Track &track : m_tracks) {
        if (track.dwLink == 0 && !track.fOver && track.fNetwork == fNetwork) {
            bool const fSame = !fNetwork && track.strAddress == strAddress;
            pFound = fSame || !pFound ? &track : pFound;
            if (fSame) {
                break;
            }
        }
    }
    if (!pFound) {
        return Depart(0,
                      "link " + std::to_string(dwLink) + " is one more than there are on the tape");
    }
    pFound->dwLink = dwLink;
    Step &step = m_steps[pFound->steps.front()];
    step.fDone = true;
    step.at = now;
}

// What of it has not been played is left out.
void CTapePlayer::SkipTrack(Track &track)
{
    track.fOver = true;
    for (std::size_t const n : track.steps) {
        Step &step = m_steps[n];
        if (step.eKind == Step::eREQUEST || step.eKind == Step::eHANG_UP) {
            step.fDone = true;
        }
    }
}

void CTapePlayer::LinkDown(LinkTime now, DWORD dwLink, bool fByClient)
{
    Track *const pTrack = FindTrack(dwLink);
    if (!pTrack || IsAtEnd()) {
        return;
    }
    bool fForeseen = !fByClient || pTrack->fMayLeave;
    unsigned nLine = 0;
    for (std::size_t const n : pTrack->steps) {
        Step &step = m_steps[n];
        bool const fSeen = n < m_nNext || step.fDone;
        if (step.eKind == Step::eHANG_UP && nLine == 0) {
            fForeseen = true;
            step.at = now;
        } else if (!fSeen && nLine == 0 &&
                   (step.eKind == Step::eREQUEST || step.eKind == Step::eSEND_FRAME)) {
            nLine = step.pItem->nLine;
        }
    }
    if (!fForeseen) {
        Depart(nLine, "link " + std::to_string(dwLink) + " is closed by its client");
    }
    SkipTrack(*pTrack);
}

void CTapePlayer::Echo(LinkTime now, std::string const &strBytes)
{
    auto const it = m_sent.find(strBytes);
    if (it == m_sent.end()) {
        return;
    }
    for (std::size_t n = m_nNext; n < m_steps.size(); ++n) {
        Step &step = m_steps[n];
        if (step.eKind == Step::eECHO && !step.fDone && step.pItem->strBytes == it->second) {
            step.fDone = true;
            step.at = now;
            return;
        }
    }
}

// ---- Playing

void CTapePlayer::Depart(unsigned nLine, std::string const &strWhat)
{
    m_onDeparture(m_tape.strFile + (nLine > 0 ? ":" + std::to_string(nLine) : "") +
                  ": the client departs from the tape: " + strWhat);
}

bool CTapePlayer::IsDatagram(Step const &step)
{
    return step.eKind == Step::eSEND_DATAGRAM || step.eKind == Step::eECHO;
}

LinkTime CTapePlayer::DueOf(Step const &step) const
{
    double const dGap = step.pItem->dTime - m_steps[m_nNext - 1].pItem->dTime;
    bool const fClient = step.eKind <= Step::eHANG_UP;
    bool const fOtherRoad = IsDatagram(step) != IsDatagram(m_steps[m_nNext - 1]);
    auto const least = Milliseconds(fClient      ? 0
                                    : fOtherRoad ? kLeastPauseMs
                                                 : std::min(dGap, kLeastPauseMs));
    return std::max(m_passed + std::max(Milliseconds(dGap / m_dSpeed), least), m_passedAt + least);
}

std::vector<TapeAct> CTapePlayer::Run(LinkTime now, LinkTime *pNext)
{
    std::vector<TapeAct> acts;
    *pNext = LinkTime::max();
    for (; !IsAtEnd(); ++m_nNext) {
        Step &step = m_steps[m_nNext];
        if (m_nNext == 0) { // the story begins when its first client comes
            if (!step.fDone) {
                break;
            }
            m_passed = m_passedAt = step.at;
            continue;
        }
        LinkTime const due = DueOf(step);
        if (step.eKind <= Step::eHANG_UP) {
            if (!PassClient(step, now, due, &acts, pNext)) {
                break;
            }
            m_passed = std::max(due, step.at);
        } else {
            if (now < due) {
                *pNext = due;
                break;
            }
            Play(step, &acts);
            step.fDone = true;
            m_passed = due;
            m_again = now + kSendAgain;
        }
        m_passedAt = std::max(m_passedAt, std::min(now, m_passed));
    }
    return acts;
}

// False when it is still to be waited for.
bool CTapePlayer::PassClient(Step &step, LinkTime now, LinkTime due, std::vector<TapeAct> *pActs,
                             LinkTime *pNext)
{
    Track &track = m_tracks[step.nTrack];
    bool const fEcho = step.eKind == Step::eECHO;
    if (fEcho && !Datagram(step)) {
        step.fDone = true; // of a client that never placed its entry, which has been told
    }
    if (step.fDone) {
        return true;
    }
    LinkTime const limit = due + (fEcho ? kEchoPatience : kPatience);
    if (now < limit) {
        *pNext = limit;
        if (fEcho) { // it may have been lost on the way
            if (now >= m_again) {
                pActs->push_back(*Datagram(step));
                m_again = now + kSendAgain;
            }
            *pNext = std::min(limit, m_again);
        }
        return false;
    }
    step.at = due;
    switch (step.eKind) {
    case Step::eUP:
        Depart(step.pItem->nLine, "no link comes; what follows of it is left out");
        SkipTrack(track);
        break;
    case Step::eECHO:
        Depart(step.pItem->nLine, "no echo comes");
        break;
    case Step::eHANG_UP:
        Depart(step.pItem->nLine, "it does not close its link");
        break;
    default:
        Depart(step.pItem->nLine, "it does not " + FrameText(step.pItem->frame));
    }
    step.fDone = true;
    return true;
}

std::optional<TapeAct> CTapePlayer::Datagram(Step const &step) const
{
    std::string const &strTape = step.pItem->strBytes;
    for (auto const &[strText, strToday] : m_tracks[step.nTrack].entries) {
        std::string const strBegin = Ended(strText) + kSequence;
        std::string strAddress;
        TapeAct act{TapeAct::eDATAGRAM};
        if (strToday.empty() || strTape.compare(0, strBegin.size(), strBegin) != 0) {
            continue;
        }
        act.strBytes = Ended(strToday) + strTape.substr(strBegin.size() + 1 - sizeof kSequence);
        if (FindClause(strToday, "NETADDR=", &strAddress) &&
            ParseHostAndPort(strAddress, &act.to)) {
            return act;
        }
    }
    return std::nullopt;
}

// With the numbers that today's client has registered with, and its own entries.
LinkFrame CTapePlayer::OfToday(Track const &track, LinkFrame frame) const
{
    CLinkReader reader(frame.payload);
    WORD const wTrapId = reader.Word16();
    BYTE const dataType = reader.Byte();
    LinkBytes value = reader.Bytes32();
    if (!reader.IsComplete()) {
        return frame;
    }
    std::string const strValue(value.begin(), value.end());
    for (auto const &[strText, strToday] : track.entries) {
        if (strText == strValue && !strToday.empty()) {
            value.assign(strToday.begin(), strToday.end());
        }
    }
    auto const it = track.trapIds.find(wTrapId);
    CLinkWriter writer;
    writer.Word16(it == track.trapIds.end() ? wTrapId : it->second).Byte(dataType);
    frame.payload = writer.Bytes32(value.data(), value.size()).Take();
    return frame;
}

void CTapePlayer::Play(Step const &step, std::vector<TapeAct> *pActs)
{
    TapeItem const &item = *step.pItem;
    if (step.eKind == Step::eALL) {
        TapeAct act{item.eKind == eTK_CUT ? TapeAct::eCUT : TapeAct::eGARBAGE};
        act.dwMilliseconds = static_cast<DWORD>(item.dwMilliseconds / m_dSpeed);
        for (Track &track : m_tracks) { // nobody stays after garbage
            track.fMayLeave = track.fMayLeave || (item.eKind == eTK_GARBAGE && track.dwLink != 0);
        }
        return pActs->push_back(act);
    }
    Track const &track = m_tracks[step.nTrack];
    if (step.eKind == Step::eSEND_DATAGRAM) { // also after its link
        if (auto act = Datagram(step)) {
            m_sent[act->strBytes] = item.strBytes;
            pActs->push_back(std::move(*act));
        }
    } else if (track.dwLink == 0 || track.fOver) {
        return;
    } else if (step.eKind == Step::eANSWER) {
        LinkFrame const frame{item.frame.kind, m_steps[step.nRequest].dwNumber, item.frame.payload};
        pActs->push_back({TapeAct::eFRAME, track.dwLink, frame});
    } else {
        pActs->push_back({step.eKind == Step::eDROP ? TapeAct::eDROP : TapeAct::eFRAME,
                          track.dwLink, OfToday(track, item.frame)});
    }
}
