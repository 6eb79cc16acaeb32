#include "tools/mfpsim_commands.h"

#include "tools/mfpsim_expect.h"
#include "tools/mfpsim_status.h"

#include <algorithm>
#include <charconv>
#include <chrono>

namespace {

constexpr unsigned kMaxCount = 1000000;
constexpr unsigned kMaxEntry = 9999;
constexpr unsigned kEntryWaitMs = 10000;
constexpr unsigned kWaitSliceMs = 100;
constexpr unsigned kFinishMs = 2000;
constexpr std::size_t kAnyNumber = 99;  // of arguments
constexpr std::size_t kShownEvents = 8; // of those that did not include what was expected

bool ParseCount(std::string const &str, unsigned nMax, unsigned *pn)
{
    char const *const pEnd = str.data() + str.size();
    auto const [p, error] = std::from_chars(str.data(), pEnd, *pn);
    return error == std::errc() && p == pEnd && *pn <= nMax;
}

CommandResult Failure(std::string strError)
{
    CommandResult result;
    result.fDone = false;
    result.strError = std::move(strError);
    return result;
}

CommandResult Answer(std::vector<std::string> lines)
{
    CommandResult result;
    result.lines = std::move(lines);
    return result;
}

std::string Join(std::vector<std::string> const &words, std::size_t nFirst, std::size_t nEnd)
{
    std::string str;
    for (std::size_t i = nFirst; i < nEnd; ++i) {
        str += (i > nFirst ? " " : "") + words[i];
    }
    return str;
}

// An event at the front of the device, which so many clients have been told of.
CommandResult Told(std::size_t cClients, char const *pszObject)
{
    return cClients > 0 ? CommandResult()
                        : Answer({std::string("no client has registered for ") + pszObject});
}

// What the user wrote of an entry's text.
std::string OwnText(PanelEntry const &entry)
{
    return entry.strText.substr(0, entry.strText.find(';'));
}

} // namespace

void CSimulation::Quit()
{
    CPlatGuard const lock(m_mx);
    m_fQuit = true;
    m_cv.notify_all();
    m_trail.Close();
}

bool CSimulation::IsQuitting() const
{
    CPlatGuard const lock(m_mx);
    return m_fQuit;
}

void CSimulation::WaitForQuit() const
{
    CPlatWaitGuard lock(m_mx);
    m_cv.wait(lock.Native(), [&]() PLAT_REQUIRES(m_mx) { return m_fQuit; });
}

void CSimulation::SleepUntil(LinkTime time) const
{
    CPlatWaitGuard lock(m_mx);
    m_cv.wait_until(lock.Native(), time, [&]() PLAT_REQUIRES(m_mx) { return m_fQuit; });
}

bool SplitCommand(std::string_view strLine, std::vector<std::string> *pWords)
{
    constexpr std::string_view kBlanks = " \t\r\n\v\f";
    for (;;) {
        strLine.remove_prefix(std::min(strLine.find_first_not_of(kBlanks), strLine.size()));
        if (strLine.empty() || strLine.front() == '#') {
            return true;
        }
        bool const fQuoted = strLine.front() == '"';
        if (fQuoted) {
            strLine.remove_prefix(1);
        }
        std::size_t const nEnd = fQuoted ? strLine.find('"') : strLine.find_first_of(kBlanks);
        if (fQuoted && nEnd == std::string_view::npos) {
            return false;
        }
        pWords->emplace_back(strLine.substr(0, nEnd));
        strLine.remove_prefix(std::min(pWords->back().size() + (fQuoted ? 1 : 0), strLine.size()));
    }
}

// ---- The table

struct CCommandSession::Command {
    char const *pszName;
    char const *pszArguments; // those of the form A|B are completed
    char const *pszHelp;
    std::size_t cMaxArguments;
    CommandResult (CCommandSession::*pfn)(Words const &);
    bool fOfDevice = true; // "all" does it for each
    bool fActs = true;     // what is expected from then on has to come of it
};

CCommandSession::Command const CCommandSession::g_commands[] = {
    {"panel", "", "list the entries on the panel", 0, &CCommandSession::ShowPanel, true, false},
    {"status", "", "list links, what they have registered for, and what is on its way", 0,
     &CCommandSession::ShowStatus, true, false},
    {"pick", "N|TEXT", "pick the entry of that number, or the first that holds TEXT in any case",
     kAnyNumber, &CCommandSession::Pick},
    {"adf", "on|off", "change the document feeder", 1, &CCommandSession::Feeder},
    {"button", "", "press the scan button", 0, &CCommandSession::Button},
    {"fax", "", "let a fax wait for upload", 0, &CCommandSession::Fax},
    {"cut", "[MS]", "end all links, turn clients away for MS milliseconds", 1,
     &CCommandSession::Cut},
    {"drop", "N", "do not send the next N datagrams", 1,
     &CCommandSession::Count<&CSoftDevice::DropDatagrams>},
    {"repeat", "N", "send the next N datagrams twice", 1,
     &CCommandSession::Count<&CSoftDevice::RepeatDatagrams>},
    {"reorder", "N", "let the next N datagrams be overtaken by the following ones", 1,
     &CCommandSession::Count<&CSoftDevice::ReorderDatagrams>},
    {"lose-echo", "N", "take no notice of the next N echoes", 1,
     &CCommandSession::Count<&CSoftDevice::LoseEchoes>},
    {"refuse-claim", "N", "refuse the next N claims of a button press", 1,
     &CCommandSession::Count<&CSoftDevice::RefuseClaims>},
    {"late", "MS", "give every answer MS milliseconds late; 0 ends it", 1, &CCommandSession::Late},
    {"mute", "on|off", "answer no request", 1, &CCommandSession::Mute},
    {"garbage", "", "send every client bytes that mean nothing", 0, &CCommandSession::Garbage},
    {"garble", "N", "make the next N answers senseless", 1,
     &CCommandSession::Count<&CSoftDevice::GarbleAnswers>},
    {"wait", "MS", "do nothing for MS milliseconds", 1, &CCommandSession::Wait, false, false},
    {"wait-entry", "[TEXT] [MS]",
     "wait until an entry holds TEXT in any case and its client hears picks; MS milliseconds "
     "(10000) at most",
     kAnyNumber, &CCommandSession::WaitEntry, true, false},
    {"expect", "WHAT [within TIME]",
     "wait until it has happened, 2s at most, counted from the last command that did something",
     kAnyNumber, &CCommandSession::Expect, true, false},
    {"expect-no", "WHAT [within TIME]", "the opposite: it must not happen in all that time",
     kAnyNumber, &CCommandSession::ExpectNot, true, false},
    {"help", "", "show this list", 0, &CCommandSession::ShowHelp, false, false},
    {"quit", "", "end the program once what is on its way has arrived, after 2 s at the latest", 0,
     &CCommandSession::Quit, false, false},
};

CCommandSession::Command const *CCommandSession::Find(std::string const &strName)
{
    auto const *const pCommand =
        std::find_if(std::begin(g_commands), std::end(g_commands),
                     [&](Command const &command) { return strName == command.pszName; });
    return pCommand == std::end(g_commands) ? nullptr : pCommand;
}

std::vector<std::string> CCommandSession::Help()
{
    std::vector<std::string> lines;
    for (Command const &command : g_commands) {
        std::string strLine = std::string("  ") + command.pszName + " " + command.pszArguments;
        strLine.resize(std::max<std::size_t>(strLine.size() + 1, 26), ' ');
        lines.push_back(strLine + command.pszHelp);
    }
    lines.push_back("  WHAT is one of");
    for (std::string &strLine : ExpectationHelp()) {
        lines.push_back(std::move(strLine));
    }
    return lines;
}

CommandResult CCommandSession::Execute(std::string const &strLine)
{
    Words words;
    if (!SplitCommand(strLine, &words)) {
        return Failure("a quote is not closed");
    }
    if (words.empty()) {
        return {};
    }
    unsigned nDevice = 1;
    bool const fAll = words[0] == "all";
    if (fAll || ParseCount(words[0], kMaxCount, &nDevice)) {
        words.erase(words.begin());
    }
    if (nDevice == 0 || nDevice > m_simulation.Count()) {
        return Failure("there is no device " + std::to_string(nDevice));
    }
    if (words.empty()) {
        return Failure("a device's number has a command behind it");
    }
    Command const *const pCommand = Find(words[0]);
    if (!pCommand) {
        return Failure("unknown command " + words[0] + ", help lists them");
    }
    if (words.size() - 1 > pCommand->cMaxArguments) {
        return Failure(words[0] + " does not take that many arguments");
    }
    if (pCommand->fActs) {
        m_simulation.Trail().Begin();
    }
    if (fAll && pCommand->fOfDevice) {
        return ExecuteForAll(*pCommand, words);
    }
    m_nDevice = nDevice;
    CommandResult result = (this->*pCommand->pfn)(words);
    result.cOf = 1;
    result.cDone = result.fDone ? 1 : 0;
    return result;
}

// It is done when a device has done it; else the first one's reason stands for all.
CommandResult CCommandSession::ExecuteForAll(Command const &command, Words const &words)
{
    CommandResult all = Failure({});
    for (m_nDevice = 1; m_nDevice <= m_simulation.Count(); ++m_nDevice) {
        CommandResult const result = (this->*command.pfn)(words);
        ++all.cOf;
        all.cDone += result.fDone ? 1 : 0;
        all.fDone = all.fDone || result.fDone;
        if (all.strError.empty()) {
            all.strError = result.strError;
        }
        std::string const strDevice = std::to_string(m_nDevice) + ": ";
        for (std::string const &strLine : result.lines) {
            all.lines.push_back(strDevice + strLine);
        }
    }
    if (all.cDone > 0 && all.cDone < all.cOf) {
        all.lines.push_back(std::to_string(all.cOf - all.cDone) + " of " + std::to_string(all.cOf) +
                            " devices did not: " + all.strError);
    }
    return all;
}

std::vector<std::string> CCommandSession::Complete(std::string const &strBefore) const
{
    std::vector<std::string> candidates;
    std::size_t const nBlank = strBefore.find(' ');
    if (nBlank == std::string::npos) {
        for (Command const &command : g_commands) {
            candidates.push_back(std::string(command.pszName) + (*command.pszArguments ? " " : ""));
        }
    } else if (Command const *const pCommand = Find(strBefore.substr(0, nBlank))) {
        std::string const strStart = strBefore.substr(0, nBlank + 1);
        if (pCommand->pfn == &CCommandSession::Pick ||
            pCommand->pfn == &CCommandSession::WaitEntry) {
            for (PanelEntry const &entry : Device().Panel()) {
                candidates.push_back(strStart + OwnText(entry));
            }
        } else if (std::string_view(pCommand->pszArguments) == "on|off") {
            candidates = {strStart + "on", strStart + "off"};
        }
    }
    std::erase_if(candidates, [&](std::string const &str) { return !str.starts_with(strBefore); });
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    return candidates;
}

// ---- What one sees

CommandResult CCommandSession::ShowPanel(Words const &)
{
    auto const panel = Device().Panel();
    if (panel.empty()) {
        return Answer({"the panel is empty"});
    }
    std::vector<std::string> lines;
    for (PanelEntry const &entry : panel) {
        lines.push_back(std::to_string(lines.size() + 1) + ": " + entry.strText);
    }
    return Answer(std::move(lines));
}

CommandResult CCommandSession::ShowStatus(Words const &)
{
    return Answer(StatusLines(Device().Status()));
}

CommandResult CCommandSession::ShowHelp(Words const &)
{
    return Answer(Help());
}

// ---- What one does

CommandResult CCommandSession::Pick(Words const &words)
{
    std::string strError;
    unsigned nEntry = 0;
    bool const fNumber = words.size() == 2 && ParseCount(words[1], kMaxEntry, &nEntry);
    std::string const strText = Join(words, 1, words.size());
    if (strText.empty()) {
        return Failure("pick takes a number or a text");
    }
    bool const fDone =
        fNumber ? Device().Pick(nEntry, &strError) : Device().PickText(strText, &strError);
    return fDone ? CommandResult() : Failure(strError);
}

CommandResult CCommandSession::Feeder(Words const &words)
{
    if (words.size() != 2 || (words[1] != "on" && words[1] != "off")) {
        return Failure("adf takes on or off");
    }
    return Told(Device().SetFeeder(words[1] == "on"), "NOT-READY-SOURCE-SCANNER");
}

CommandResult CCommandSession::Button(Words const &)
{
    return Told(Device().PressButton(), "SCANNER_BUTTON_STATUS");
}

CommandResult CCommandSession::Fax(Words const &)
{
    return Told(Device().AnnounceFax(), "FAX-UPLOAD");
}

CommandResult CCommandSession::Cut(Words const &words)
{
    unsigned nMilliseconds = 0;
    if (words.size() > 1 && !ParseTime(words[1], &nMilliseconds)) {
        return Failure("cut takes a time such as 500, 500ms or 2s");
    }
    Device().CutLinks(nMilliseconds);
    return {};
}

template <void (CSoftDevice::*pfn)(unsigned)>
CommandResult CCommandSession::Count(Words const &words)
{
    unsigned c = 0;
    if (words.size() != 2 || !ParseCount(words[1], kMaxCount, &c)) {
        return Failure(words[0] + " takes a number up to " + std::to_string(kMaxCount));
    }
    (Device().*pfn)(c);
    return {};
}

CommandResult CCommandSession::Late(Words const &words)
{
    unsigned nMilliseconds = 0;
    if (words.size() != 2 || !ParseTime(words[1], &nMilliseconds)) {
        return Failure("late takes a time such as 500, 500ms or 2s");
    }
    Device().SetLate(nMilliseconds);
    return {};
}

CommandResult CCommandSession::Mute(Words const &words)
{
    if (words.size() != 2 || (words[1] != "on" && words[1] != "off")) {
        return Failure("mute takes on or off");
    }
    Device().SetMute(words[1] == "on");
    return {};
}

CommandResult CCommandSession::Garbage(Words const &)
{
    Device().SendGarbage();
    return {};
}

// ---- Time

CommandResult CCommandSession::Wait(Words const &words)
{
    unsigned nMilliseconds = 0;
    if (words.size() != 2 || !ParseTime(words[1], &nMilliseconds)) {
        return Failure("wait takes a time such as 500, 500ms or 2s");
    }
    m_simulation.Sleep(nMilliseconds);
    return {};
}

CommandResult CCommandSession::WaitEntry(Words const &words)
{
    unsigned nMilliseconds = kEntryWaitMs;
    std::size_t nEnd = words.size();
    if (nEnd > 1 && ParseTime(words.back(), &nMilliseconds)) {
        --nEnd;
    }
    std::string const strText = Join(words, 1, nEnd);
    auto const deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(nMilliseconds);
    std::string strError;
    do { // in slices, to notice the end
        if (Device().WaitForEntry(strText, std::min(nMilliseconds, kWaitSliceMs), &strError)) {
            return {};
        }
    } while (!m_simulation.IsQuitting() && std::chrono::steady_clock::now() < deadline);
    return Failure(strError);
}

CommandResult CCommandSession::Expect(Words const &words)
{
    Expectation expectation;
    CommandResult result;
    if (!ParseExpectation({words.begin() + 1, words.end()}, &expectation, &result.strError)) {
        return Failure(result.strError);
    }
    if (Meets(expectation, Device(), m_nDevice, m_simulation.Trail())) {
        return result;
    }
    result = Failure("expected and did not come: " + Join(words, 1, words.size()));
    result.lines = m_simulation.Trail().Lines(m_nDevice, kShownEvents);
    return result;
}

CommandResult CCommandSession::ExpectNot(Words const &words)
{
    Expectation expectation;
    CommandResult result;
    if (!ParseExpectation({words.begin() + 1, words.end()}, &expectation, &result.strError)) {
        return Failure(result.strError);
    }
    if (!Meets(expectation, Device(), m_nDevice, m_simulation.Trail())) {
        return result;
    }
    result = Failure("not expected, and came: " + Join(words, 1, words.size()));
    result.lines = m_simulation.Trail().Lines(m_nDevice, kShownEvents);
    return result;
}

CommandResult CCommandSession::Quit(Words const &)
{
    // It says what has not arrived, which is nothing that a script could act upon any more.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kFinishMs);
    CommandResult result;
    for (std::size_t n = 1; n <= m_simulation.Count(); ++n) {
        std::string const strRest = m_simulation.Device(n).Finish(MillisecondsUntil(deadline));
        if (!strRest.empty()) {
            result.lines.push_back((m_simulation.Count() > 1 ? std::to_string(n) + ": " : "") +
                                   strRest);
        }
    }
    result.fQuit = true;
    return result;
}
