#include "device/discovery_job.h"

#include <algorithm>

namespace {

char const kExit[] = "\x1B%-12345X";
constexpr std::size_t kExitSize = sizeof kExit - 1;
std::string const g_strHead("@PJL SELECT=\"\x01\x15");
constexpr std::size_t kMaxDigits = 11; // sign and 32 bits

bool IsNumber(std::string const &str)
{
    std::size_t const nFirst = !str.empty() && str[0] == '-' ? 1 : 0;
    return str.size() > nFirst && str.size() <= kMaxDigits &&
           std::all_of(str.begin() + static_cast<ptrdiff_t>(nFirst), str.end(),
                       [](char ch) { return ch >= '0' && ch <= '9'; });
}

bool IsBlank(char ch)
{
    return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n';
}

DiscoveryFind Refusal(char const *psz)
{
    return {{}, psz};
}

} // namespace

bool FindClause(std::string const &strText, std::string const &strKey, std::string *pstrValue)
{
    bool fFound = false;
    for (std::size_t nPos = 0; nPos < strText.size();) {
        std::size_t const nEnd = strText.find(';', nPos);
        if (nEnd == std::string::npos) {
            break; // a clause has an end
        }
        if (strText.compare(nPos, strKey.size(), strKey) == 0 && nPos + strKey.size() <= nEnd) {
            *pstrValue = strText.substr(nPos + strKey.size(), nEnd - nPos - strKey.size());
            fFound = true;
        }
        nPos = nEnd + 1;
    }
    return fFound;
}

std::string ParseDiscoveryJob(std::string const &strContent, DiscoveryJob *pJob)
{
    if (strContent.compare(0, g_strHead.size(), g_strHead) != 0) {
        return "it does not begin with the select command";
    }
    if (strContent.size() == g_strHead.size() || strContent.back() != '"') {
        return "its quote is not closed";
    }
    std::string const strClauses =
        strContent.substr(g_strHead.size(), strContent.size() - g_strHead.size() - 1);
    std::string strType;
    if (!FindClause(strClauses, "TYPE=", &strType) || strType != "<ECHO>") {
        return "its type is not <ECHO>";
    }
    if (!FindClause(strClauses, "NETADDR=", &pJob->strAddress) || pJob->strAddress.empty()) {
        return "it has no address";
    }
    if (!FindClause(strClauses, "SRVQ=", &pJob->strNumber) || !IsNumber(pJob->strNumber)) {
        return "it has no number";
    }
    return {};
}

std::vector<DiscoveryFind> CDiscoveryScanner::Feed(char const *p, std::size_t cb)
{
    std::vector<DiscoveryFind> finds;
    while (cb > 0) {
        // In pieces, so that a flood is thrown away as it comes.
        std::size_t const cbPiece = std::min(cb, kMaxDiscoveryJob);
        m_strRest.append(p, cbPiece);
        p += cbPiece;
        cb -= cbPiece;
        while (Step(&finds)) {
        }
    }
    return finds;
}

// Takes one thing off the rest. False when more bytes are needed.
bool CDiscoveryScanner::Step(std::vector<DiscoveryFind> *pFinds)
{
    if (!SkipToStart(pFinds)) {
        return false;
    }
    std::size_t const nEnd = m_strRest.find(kExit, kExitSize);
    if (nEnd != std::string::npos && nEnd - kExitSize <= kMaxDiscoveryJob) {
        TakeContent(nEnd, pFinds);
        return true;
    }
    if (nEnd == std::string::npos && m_strRest.size() <= kMaxDiscoveryJob + 2 * kExitSize) {
        return false;
    }
    pFinds->push_back(Refusal("it is too long"));
    m_fSkipping = true;
    m_strRest.erase(0, kExitSize);
    return true;
}

// Brings the rest to begin with an exit sequence. What is thrown away is refused, once.
bool CDiscoveryScanner::SkipToStart(std::vector<DiscoveryFind> *pFinds)
{
    std::size_t nStart = m_strRest.find(kExit);
    bool const fFound = nStart != std::string::npos;
    if (!fFound) { // the sequence may have come in part
        nStart = std::min(m_strRest.size(), m_strRest.rfind('\x1B'));
    }
    if (!fFound && m_strRest.size() - nStart >= kExitSize) {
        nStart = m_strRest.size();
    }
    bool const fJunk = !std::all_of(m_strRest.begin(),
                                    m_strRest.begin() + static_cast<ptrdiff_t>(nStart), IsBlank);
    if (fJunk && !m_fSkipping) {
        pFinds->push_back(Refusal("it does not begin with the exit sequence"));
        m_fSkipping = true;
    }
    m_strRest.erase(0, nStart);
    if (fFound) {
        m_fSkipping = false;
    }
    return fFound;
}

// The exit sequence behind a job stays: if that job was cut off, it begins the next one.
void CDiscoveryScanner::TakeContent(std::size_t nEnd, std::vector<DiscoveryFind> *pFinds)
{
    std::string const strContent = m_strRest.substr(kExitSize, nEnd - kExitSize);
    m_strRest.erase(0, nEnd);
    if (std::all_of(strContent.begin(), strContent.end(), IsBlank)) {
        return; // between two jobs
    }
    DiscoveryFind find;
    find.strRefusal = ParseDiscoveryJob(strContent, &find.job);
    pFinds->push_back(std::move(find));
}

bool CDiscoveryScanner::HasRest() const
{
    std::size_t const nStart = m_strRest.compare(0, kExitSize, kExit) == 0 ? kExitSize : 0;
    return !std::all_of(m_strRest.begin() + static_cast<ptrdiff_t>(nStart), m_strRest.end(),
                        IsBlank);
}

std::vector<DiscoveryFind> CDiscoveryScanner::Flush()
{
    std::vector<DiscoveryFind> finds;
    if (HasRest() && !m_fSkipping) {
        finds.push_back(Refusal("it was cut off"));
    }
    m_strRest.clear();
    m_fSkipping = false;
    return finds;
}
