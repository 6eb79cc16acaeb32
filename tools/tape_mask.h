#pragma once
/// @file
/// Stand-ins for what a tape should not tell: the same for the same original, numbered as they come.

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What is masked.
struct TapeMaskParts {
    bool fAddresses = true; ///< hosts and ports
    bool fNames = true;     ///< names of hosts and clients, serial numbers, the scan token's bytes
    bool fTexts = true;     ///< what users wrote on the panel

    /// The names of those that are, as --mask takes them.
    std::vector<std::string> Names() const;
};

/// All of them.
constexpr char kMaskAll[] = "addresses,names,texts";

/// Reads such names with commas between them, or "none". Nothing if one of them is unknown.
std::optional<TapeMaskParts> ParseTapeMask(std::string const &strNames);
/// What is wrong with them, or nothing.
std::string TapeMaskProblem(std::string const &strNames);

/// What a client's user wrote, of an entry's whole text or a datagram: without the clauses that the agent and the
/// device put behind it.
std::string OwnPartOf(std::string const &strOption);

/// The stand-ins of one tape. One thread at a time.
class CTapeMask {
public:
    explicit CTapeMask(TapeMaskParts const &parts) : m_parts(parts) {}

    std::string Host(std::string const &str);    ///< a dotted address, or a host's name
    std::string Address(std::string const &str); ///< "HOST:PORT", a host, or a local client's name
    std::string Name(char const *pszWhat,
                     std::string const &str);   ///< "WHAT-1"; nothing for nothing
    std::string Own(std::string const &str);    ///< what a user wrote
    std::string Option(std::string const &str); ///< an entry's whole text, or a datagram
    std::string Token(std::string const &str);  ///< the scan token; zeroes stay

private:
    // The number of the original among those of its kind, from 1.
    std::size_t Number(char const *pszKind, std::string const &str);
    std::string Clause(std::string const &str);

    TapeMaskParts const m_parts;
    std::map<std::pair<std::string, std::string>, std::size_t> m_numbers;
    std::map<std::string, std::size_t> m_counts;
};
