#include "tools/mfpsim_panel.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <sstream>

namespace {

constexpr unsigned kMaxMilliseconds = 24 * 60 * 60 * 1000;
constexpr unsigned kEntryWaitMs = 10000;
constexpr unsigned kWaitSliceMs = 100;

bool ParseCount(std::string const &str, unsigned nMax, unsigned *pn)
{
    char const *const pEnd = str.data() + str.size();
    auto const [p, error] = std::from_chars(str.data(), pEnd, *pn);
    return error == std::errc() && p == pEnd && *pn <= nMax;
}

// The number that a command takes as its only argument.
bool OnlyNumber(std::vector<std::string> const &words, unsigned nMax, unsigned *pn,
                std::string *pstrError)
{
    if (words.size() == 2 && ParseCount(words[1], nMax, pn))
        return true;
    *pstrError = words[0] + " takes a number up to " + std::to_string(nMax);
    return false;
}

std::string Join(std::vector<std::string> const &words, size_t nFirst, size_t nEnd)
{
    std::string str;
    for (size_t i = nFirst; i < nEnd; ++i)
        str += (i > nFirst ? " " : "") + words[i];
    return str;
}

} // namespace

struct CPanelCommands::Command {
    char const *pszName;
    char const *pszArguments;
    char const *pszHelp;
    size_t cMaxArguments;
    bool (CPanelCommands::*pfn)(Words const &, std::string *);
};

CPanelCommands::Command const CPanelCommands::g_commands[] = {
    {"panel", "", "list the entries on the panel", 0, &CPanelCommands::ShowPanel},
    {"pick", "N|TEXT", "pick the entry of that number, or the first that holds TEXT", 99,
     &CPanelCommands::Pick},
    {"adf", "on|off", "change the document feeder", 1, &CPanelCommands::Feeder},
    {"button", "", "press the scan button", 0, &CPanelCommands::Button},
    {"fax", "", "let a fax wait for upload", 0, &CPanelCommands::Fax},
    {"cut", "[MS]", "end all links, turn clients away for MS milliseconds", 1,
     &CPanelCommands::Cut},
    {"drop", "N", "do not send the next N datagrams", 1, &CPanelCommands::Drop},
    {"repeat", "N", "send the next N datagrams twice", 1, &CPanelCommands::Repeat},
    {"reorder", "N", "let the next N datagrams be overtaken by the following ones", 1,
     &CPanelCommands::Reorder},
    {"lose-echo", "N", "take no notice of the next N echoes", 1, &CPanelCommands::LoseEcho},
    {"refuse-claim", "N", "refuse the next N claims of a button press", 1,
     &CPanelCommands::RefuseClaim},
    {"late", "MS", "give every answer MS milliseconds late; 0 ends it", 1, &CPanelCommands::Late},
    {"mute", "on|off", "answer no request", 1, &CPanelCommands::Mute},
    {"garbage", "", "send every client bytes that mean nothing", 0, &CPanelCommands::Garbage},
    {"garble", "N", "make the next N answers senseless", 1, &CPanelCommands::Garble},
    {"wait", "MS", "do nothing for MS milliseconds", 1, &CPanelCommands::Wait},
    {"wait-entry", "[TEXT] [MS]",
     "wait for an entry that holds TEXT, MS milliseconds (10000) at most", 99,
     &CPanelCommands::WaitEntry},
    {"help", "", "show this list", 0, &CPanelCommands::ShowHelp},
    {"quit", "", "end the program", 0, &CPanelCommands::DoQuit},
};

std::vector<std::string> CPanelCommands::Help()
{
    std::vector<std::string> lines;
    for (Command const &command : g_commands) {
        std::string strLine = std::string("  ") + command.pszName + " " + command.pszArguments;
        strLine.resize(std::max<size_t>(strLine.size() + 1, 26), ' ');
        lines.push_back(strLine + command.pszHelp);
    }
    return lines;
}

bool CPanelCommands::Execute(std::string const &strLine, std::string *pstrError)
{
    std::istringstream stream(strLine);
    Words words;
    for (std::string str; stream >> str;)
        words.push_back(str);
    if (words.empty() || words[0][0] == '#')
        return true;
    auto const *const pCommand =
        std::find_if(std::begin(g_commands), std::end(g_commands),
                     [&](Command const &command) { return words[0] == command.pszName; });
    if (pCommand == std::end(g_commands)) {
        *pstrError = "unknown command " + words[0] + ", help lists them";
        return false;
    }
    if (words.size() - 1 > pCommand->cMaxArguments) {
        *pstrError = words[0] + " does not take that many arguments";
        return false;
    }
    return (this->*pCommand->pfn)(words, pstrError);
}

void CPanelCommands::Quit()
{
    std::lock_guard lock(m_mx);
    m_fQuit = true;
    m_cv.notify_all();
}

bool CPanelCommands::IsQuitting() const
{
    std::lock_guard lock(m_mx);
    return m_fQuit;
}

void CPanelCommands::WaitForQuit() const
{
    std::unique_lock lock(m_mx);
    m_cv.wait(lock, [&] { return m_fQuit; });
}

bool CPanelCommands::ShowPanel(Words const &, std::string *)
{
    auto const panel = m_device.Panel();
    if (panel.empty())
        m_print("the panel is empty");
    for (size_t i = 0; i < panel.size(); ++i)
        m_print(std::to_string(i + 1) + ": " + panel[i].strText);
    return true;
}

bool CPanelCommands::PickEntry(size_t nEntry, std::string *pstrError)
{
    if (m_device.Pick(nEntry))
        return true;
    *pstrError = "there is no entry " + std::to_string(nEntry);
    return false;
}

bool CPanelCommands::Pick(Words const &words, std::string *pstrError)
{
    unsigned nEntry = 0;
    if (words.size() == 2 && ParseCount(words[1], 9999, &nEntry))
        return PickEntry(nEntry, pstrError);
    std::string const strText = Join(words, 1, words.size());
    auto const panel = m_device.Panel();
    for (size_t i = 0; i < panel.size() && !strText.empty(); ++i) {
        if (panel[i].strText.find(strText) != std::string::npos)
            return PickEntry(i + 1, pstrError);
    }
    *pstrError = strText.empty() ? "pick takes a number or a text" : "no entry holds " + strText;
    return false;
}

bool CPanelCommands::Feeder(Words const &words, std::string *pstrError)
{
    if (words.size() == 2 && (words[1] == "on" || words[1] == "off")) {
        m_device.SetFeeder(words[1] == "on");
        return true;
    }
    *pstrError = "adf takes on or off";
    return false;
}

bool CPanelCommands::Button(Words const &, std::string *)
{
    m_device.PressButton();
    return true;
}

bool CPanelCommands::Fax(Words const &, std::string *)
{
    m_device.AnnounceFax();
    return true;
}

bool CPanelCommands::Cut(Words const &words, std::string *pstrError)
{
    unsigned nMilliseconds = 0;
    if (words.size() > 1 && !OnlyNumber(words, kMaxMilliseconds, &nMilliseconds, pstrError))
        return false;
    m_device.CutLinks(nMilliseconds);
    return true;
}

bool CPanelCommands::CountFor(void (CSoftDevice::*pfn)(unsigned), Words const &words,
                              std::string *pstrError)
{
    unsigned c = 0;
    if (!OnlyNumber(words, 1000000, &c, pstrError))
        return false;
    (m_device.*pfn)(c);
    return true;
}

bool CPanelCommands::Drop(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::DropDatagrams, words, pstrError);
}

bool CPanelCommands::Repeat(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::RepeatDatagrams, words, pstrError);
}

bool CPanelCommands::Reorder(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::ReorderDatagrams, words, pstrError);
}

bool CPanelCommands::LoseEcho(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::LoseEchoes, words, pstrError);
}

bool CPanelCommands::RefuseClaim(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::RefuseClaims, words, pstrError);
}

bool CPanelCommands::Garble(Words const &words, std::string *pstrError)
{
    return CountFor(&CSoftDevice::GarbleAnswers, words, pstrError);
}

bool CPanelCommands::Late(Words const &words, std::string *pstrError)
{
    unsigned nMilliseconds = 0;
    if (!OnlyNumber(words, kMaxMilliseconds, &nMilliseconds, pstrError))
        return false;
    m_device.SetLate(nMilliseconds);
    return true;
}

bool CPanelCommands::Mute(Words const &words, std::string *pstrError)
{
    if (words.size() == 2 && (words[1] == "on" || words[1] == "off")) {
        m_device.SetMute(words[1] == "on");
        return true;
    }
    *pstrError = "mute takes on or off";
    return false;
}

bool CPanelCommands::Garbage(Words const &, std::string *)
{
    m_device.SendGarbage();
    return true;
}

bool CPanelCommands::Wait(Words const &words, std::string *pstrError)
{
    unsigned nMilliseconds = 0;
    if (!OnlyNumber(words, kMaxMilliseconds, &nMilliseconds, pstrError))
        return false;
    std::unique_lock lock(m_mx);
    m_cv.wait_for(lock, std::chrono::milliseconds(nMilliseconds), [&] { return m_fQuit; });
    return true;
}

bool CPanelCommands::WaitEntry(Words const &words, std::string *pstrError)
{
    unsigned nMilliseconds = kEntryWaitMs;
    size_t nEnd = words.size();
    if (nEnd > 1 && ParseCount(words.back(), kMaxMilliseconds, &nMilliseconds))
        --nEnd;
    std::string const strText = Join(words, 1, nEnd);
    auto const deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(nMilliseconds);
    do { // in slices, to notice the end
        if (m_device.WaitForEntry(strText, std::min(nMilliseconds, kWaitSliceMs)))
            return true;
    } while (!IsQuitting() && std::chrono::steady_clock::now() < deadline);
    *pstrError = "no such entry came: " + strText;
    return false;
}

bool CPanelCommands::ShowHelp(Words const &, std::string *)
{
    for (std::string const &strLine : Help())
        m_print(strLine);
    return true;
}

bool CPanelCommands::DoQuit(Words const &, std::string *)
{
    Quit();
    return true;
}
