#include "tools/mfpsim_scenario.h"

#include "tools/mfpsim_expect.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>

namespace {

constexpr unsigned kMaxTimes = 1000000;

double SecondsSince(LinkTime time)
{
    return std::chrono::duration<double>(LinkClock::now() - time).count();
}

std::string FirstWord(std::string const &strLine)
{
    std::vector<std::string> words;
    return SplitCommand(strLine, &words) && !words.empty() ? words[0] : std::string();
}

// For XML, which takes no control characters at all.
std::string Escape(std::string const &str)
{
    std::string strResult;
    for (char const ch : str) {
        switch (ch) {
        case '<':
            strResult += "&lt;";
            break;
        case '>':
            strResult += "&gt;";
            break;
        case '&':
            strResult += "&amp;";
            break;
        case '"':
            strResult += "&quot;";
            break;
        default:
            strResult += static_cast<unsigned char>(ch) < ' ' && ch != '\n' ? '?' : ch;
        }
    }
    return strResult;
}

bool IsNameByte(char ch)
{
    return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') ||
           ch == '_';
}

} // namespace

std::string CScenario::Place(Line const &line) const
{
    return m_strFile + ":" + std::to_string(line.nNumber) + ": ";
}

// ---- Reading

bool CScenario::Load(std::string const &strFile, std::string *pstrError)
{
    m_strFile = strFile;
    std::ifstream file(strFile);
    std::string strLine;
    if (!file) {
        *pstrError = "script " + strFile + " cannot be read";
        return false;
    }
    for (int nNumber = 1; std::getline(file, strLine); ++nNumber) {
        if (!FirstWord(strLine).empty() || strLine.find('"') != std::string::npos) {
            m_lines.push_back({nNumber, strLine});
            if (!Insert(m_lines.back(), pstrError)) {
                return false;
            }
        }
    }
    return FindBlocks(pstrError);
}

// ${NAME} is the environment's, ${NAME:-TEXT} has TEXT if there is none; a $ without a brace is itself.
bool CScenario::Insert(Line &line, std::string *pstrError) const
{
    std::string strResult;
    std::string const &str = line.strText;
    std::size_t nPos = 0;
    for (std::size_t nOpen; (nOpen = str.find("${", nPos)) != std::string::npos;) {
        std::size_t const nClose = str.find('}', nOpen);
        std::string const strInside =
            str.substr(nOpen + 2, nClose == std::string::npos ? nClose : nClose - nOpen - 2);
        std::size_t const nElse = strInside.find(":-");
        std::string const strName = strInside.substr(0, nElse);
        if (nClose == std::string::npos || strName.empty() ||
            !std::all_of(strName.begin(), strName.end(), IsNameByte)) {
            *pstrError = Place(line) + "a variable is ${NAME} or ${NAME:-TEXT}";
            return false;
        }
        char const *const pszValue = std::getenv(strName.c_str());
        if (!pszValue && nElse == std::string::npos) {
            *pstrError = Place(line) + "there is no variable " + strName + " in the environment";
            return false;
        }
        strResult += str.substr(nPos, nOpen - nPos);
        strResult += pszValue ? std::string(pszValue) : strInside.substr(nElse + 2);
        nPos = nClose + 1;
    }
    line.strText = strResult + str.substr(nPos);
    return true;
}

bool CScenario::FindBlocks(std::string *pstrError)
{
    std::vector<std::size_t> open;
    for (std::size_t i = 0; i < m_lines.size(); ++i) {
        Line &line = m_lines[i];
        std::vector<std::string> words;
        if (!SplitCommand(line.strText, &words) || words.empty()) {
            continue; // told when it is its turn
        }
        if (words[0] == "repeat" && words.size() == 2 &&
            words[1].find_first_not_of("0123456789") == std::string::npos) {
            std::from_chars(words[1].data(), words[1].data() + words[1].size(), line.cTimes);
            if (line.cTimes == 0 || line.cTimes > kMaxTimes) {
                *pstrError = Place(line) + "repeat takes a number from 1 to 1000000";
                return false;
            }
            open.push_back(i);
        } else if (words[0] == "end") {
            if (open.empty()) {
                *pstrError = Place(line) + "end without repeat";
                return false;
            }
            m_lines[open.back()].nEnd = i;
            open.pop_back();
        } else if (words[0] == "case" && (!open.empty() || words.size() < 2)) {
            *pstrError =
                Place(line) + (open.empty() ? "a case has a name" : "a case inside a repeat");
            return false;
        }
    }
    if (!open.empty()) {
        *pstrError = Place(m_lines[open.back()]) + "repeat without end";
        return false;
    }
    return true;
}

// ---- Running

void CScenario::BeginCase(std::string strName)
{
    EndCase();
    m_cases.push_back({std::move(strName), {}, 0});
    m_caseBegun = LinkClock::now();
}

void CScenario::EndCase()
{
    if (!m_cases.empty()) {
        m_cases.back().dSeconds = SecondsSince(m_caseBegun);
    }
}

std::size_t CScenario::NextCase(std::size_t n) const
{
    while (n < m_lines.size() && FirstWord(m_lines[n].strText) != "case") {
        ++n;
    }
    return n;
}

bool CScenario::Run(CSimulation &simulation, AnswerFn const &onAnswer, FailureFn const &onFailure)
{
    CCommandSession session(simulation);
    m_pSimulation = &simulation;
    m_pSession = &session;
    m_onAnswer = onAnswer;
    m_onFailure = onFailure;
    m_begun = LinkClock::now();
    simulation.Trail().Begin();
    bool fGood = true;
    std::size_t n = NextCase(0);
    if (n != 0) { // what stands before the first case, or all
        BeginCase(m_strFile);
        fGood = RunLines(0, n);
        n = fGood ? n : m_lines.size();
    }
    while (n < m_lines.size() && !simulation.IsQuitting()) {
        std::vector<std::string> words;
        SplitCommand(m_lines[n].strText, &words);
        std::string strName;
        for (std::size_t i = 1; i < words.size(); ++i) {
            strName += (i > 1 ? " " : "") + words[i];
        }
        BeginCase(strName);
        simulation.Trail().Begin();
        std::size_t const nNext = NextCase(n + 1);
        fGood = RunLines(n + 1, nNext) && fGood;
        n = nNext;
    }
    EndCase();
    return fGood;
}

bool CScenario::RunLines(std::size_t nFirst, std::size_t nEnd)
{
    for (std::size_t n = nFirst; n < nEnd && !m_pSimulation->IsQuitting(); ++n) {
        Line const &line = m_lines[n];
        if (line.nEnd == 0) {
            if (!RunLine(line)) {
                return false;
            }
            continue;
        }
        for (unsigned c = 0; c < line.cTimes && !m_pSimulation->IsQuitting(); ++c) {
            if (!RunLines(n + 1, line.nEnd)) {
                return false;
            }
        }
        n = line.nEnd;
    }
    return true;
}

bool CScenario::RunLine(Line const &line)
{
    std::vector<std::string> words;
    std::string strCommand = line.strText;
    if (SplitCommand(line.strText, &words) && words[0] == "at") {
        unsigned nMilliseconds = 0;
        if (words.size() < 3 || !ParseTime(words[1], &nMilliseconds)) {
            return Fail(line, {false, "at takes a time and a command", {}});
        }
        m_pSimulation->SleepUntil(m_begun + std::chrono::milliseconds(nMilliseconds));
        strCommand = strCommand.substr(strCommand.find(words[1], strCommand.find("at") + 2) +
                                       words[1].size());
    }
    CommandResult const result = m_pSession->Execute(strCommand);
    if (!result.fDone) {
        return m_pSimulation->IsQuitting() || Fail(line, result);
    }
    m_onAnswer(result);
    if (result.fQuit) {
        m_pSimulation->Quit();
    }
    return true;
}

bool CScenario::Fail(Line const &line, CommandResult const &result)
{
    m_cases.back().strFailure = Place(line) + result.strError;
    for (std::string const &strLine : result.lines) {
        m_cases.back().strFailure += "\n  " + strLine;
    }
    m_onFailure(m_cases.back().strFailure);
    return false;
}

// ---- The report

bool CScenario::WriteJUnit(std::string const &strFile, std::string *pstrError) const
{
    auto const cFailed = std::count_if(m_cases.begin(), m_cases.end(),
                                       [](ScenarioCase const &c) { return !c.strFailure.empty(); });
    std::ofstream out(strFile);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"" << Escape(m_strFile)
        << "\" tests=\"" << m_cases.size() << "\" failures=\"" << cFailed << "\">\n";
    for (ScenarioCase const &one : m_cases) {
        out << "  <testcase classname=\"" << Escape(m_strFile) << "\" name=\""
            << Escape(one.strName) << "\" time=\"" << one.dSeconds << "\"";
        if (one.strFailure.empty()) {
            out << "/>\n";
            continue;
        }
        std::string const strFirst = one.strFailure.substr(0, one.strFailure.find('\n'));
        out << ">\n    <failure message=\"" << Escape(strFirst) << "\">" << Escape(one.strFailure)
            << "</failure>\n  </testcase>\n";
    }
    out << "</testsuite>\n";
    out.close();
    if (!out) {
        *pstrError = "cannot write " + strFile;
        return false;
    }
    return true;
}
