#include "tools/tape_mask.h"

#include "devlink/link_stream.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace {

struct Part {
    char const *pszName;
    bool TapeMaskParts::*pf;
};
constexpr std::array kParts{Part{"addresses", &TapeMaskParts::fAddresses},
                            Part{"names", &TapeMaskParts::fNames},
                            Part{"texts", &TapeMaskParts::fTexts}};

// The clauses that stand behind what a user wrote.
constexpr std::array kClauses{"NETADDR=", "SWINST=", "KICKSEQ="};
// A device's answer to a discovery job: no user wrote it.
constexpr char kAnswerBegin[] = "TYPE=<ECHO>;";

constexpr std::size_t kLowestPort = 1024;
constexpr std::size_t kPorts = 60000;

bool Begins(std::string const &str, char const *pszBegin)
{
    return str.rfind(pszBegin, 0) == 0;
}

bool IsClause(std::string const &str)
{
    return str.empty() || std::any_of(kClauses.begin(), kClauses.end(),
                                      [&](char const *psz) { return Begins(str, psz); });
}

// A name that the device gave a local client, "LINK1": it tells nothing.
bool IsGivenName(std::string const &str)
{
    return Begins(str, "LINK") &&
           str.find_first_not_of("0123456789", sizeof "LINK" - 1) == std::string::npos;
}

} // namespace

std::vector<std::string> TapeMaskParts::Names() const
{
    std::vector<std::string> names;
    for (Part const &part : kParts) {
        if (this->*part.pf) {
            names.emplace_back(part.pszName);
        }
    }
    return names;
}

std::optional<TapeMaskParts> ParseTapeMask(std::string const &strNames)
{
    TapeMaskParts parts{false, false, false};
    if (strNames == "none") {
        return parts;
    }
    std::istringstream names(strNames);
    for (std::string strName; std::getline(names, strName, ',');) {
        auto const it = std::find_if(kParts.begin(), kParts.end(),
                                     [&](Part const &part) { return strName == part.pszName; });
        if (it == kParts.end()) {
            return std::nullopt;
        }
        parts.*it->pf = true;
    }
    return parts;
}

std::string TapeMaskProblem(std::string const &strNames)
{
    return ParseTapeMask(strNames) ? "" : "\"" + strNames + "\" is not none, nor of " + kMaskAll;
}

std::string OwnPartOf(std::string const &strOption)
{
    std::size_t nEnd = strOption.size();
    while (nEnd > 0) {
        std::size_t const nSeparator = strOption.rfind(';', nEnd - 1);
        std::size_t const nPiece = nSeparator == std::string::npos ? 0 : nSeparator + 1;
        if (!IsClause(strOption.substr(nPiece, nEnd - nPiece))) {
            break;
        }
        nEnd = nPiece == 0 ? 0 : nSeparator;
    }
    return strOption.substr(0, nEnd);
}

std::size_t CTapeMask::Number(char const *pszKind, std::string const &str)
{
    auto const [it, fNew] = m_numbers.try_emplace({pszKind, str}, 0);
    if (fNew) {
        it->second = ++m_counts[pszKind];
    }
    return it->second;
}

std::string CTapeMask::Name(char const *pszWhat, std::string const &str)
{
    if (!m_parts.fNames || str.empty() || IsGivenName(str)) {
        return str;
    }
    return pszWhat + ("-" + std::to_string(Number(pszWhat, str)));
}

std::string CTapeMask::Host(std::string const &str)
{
    DWORD dwHost = 0;
    if (!ParseDottedAddress(str, &dwHost)) {
        return Name("host", str);
    }
    if (!m_parts.fAddresses) {
        return str;
    }
    // A net that is nobody's, kept free for measuring.
    std::size_t const n = Number("address", str);
    return "198.18." + std::to_string(n / 256 % 256) + "." + std::to_string(n % 256);
}

std::string CTapeMask::Address(std::string const &str)
{
    std::size_t const nColon = str.find(':');
    if (nColon == std::string::npos) {
        return Host(str);
    }
    std::string const strPort = m_parts.fAddresses
                                    ? std::to_string(kLowestPort + Number("port", str) % kPorts)
                                    : str.substr(nColon + 1);
    return Host(str.substr(0, nColon)) + ":" + strPort;
}

std::string CTapeMask::Own(std::string const &str)
{
    if (!m_parts.fTexts || str.empty() || Begins(str, kAnswerBegin)) {
        return str;
    }
    return "Entry " + std::to_string(Number("entry", str));
}

std::string CTapeMask::Clause(std::string const &str)
{
    std::string const strValue = str.substr(std::min(str.find('=') + 1, str.size()));
    if (Begins(str, "NETADDR=")) {
        return "NETADDR=" + Address(strValue);
    }
    if (Begins(str, "SWINST=") && m_parts.fNames) {
        return "SWINST=" + std::to_string(Number("instance", strValue));
    }
    return str;
}

std::string CTapeMask::Option(std::string const &str)
{
    std::string const strOwn = OwnPartOf(str);
    std::string strMasked = Own(strOwn);
    for (std::size_t n = strOwn.size(); n < str.size();) {
        std::size_t const nPiece = str[n] == ';' ? n + 1 : n;
        std::size_t const nEnd = std::min(str.find(';', nPiece), str.size());
        strMasked += str.substr(n, nPiece - n) + Clause(str.substr(nPiece, nEnd - nPiece));
        n = nEnd;
    }
    return strMasked;
}

std::string CTapeMask::Token(std::string const &str)
{
    if (!m_parts.fNames || str.find_first_not_of('\0') == std::string::npos) {
        return str;
    }
    std::string strMasked(str.size(), '\0');
    std::size_t n = Number("token", str);
    for (std::size_t i = 0; i < strMasked.size() && n > 0; ++i, n /= 256) {
        strMasked[i] = static_cast<char>(n % 256);
    }
    return strMasked;
}
