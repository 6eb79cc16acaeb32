#pragma once
/// @file
/// Finds discovery jobs in what comes along a print path, and takes them apart.
///
/// A job: the exit sequence (ESC `%-12345X`), `@PJL SELECT="` with two control bytes (01 15), clauses
/// `KEY=value;` of which TYPE must be `<ECHO>`, NETADDR says where the answer goes and SRVQ is the number
/// that the answer repeats, the closing quote, the exit sequence. There is nothing between jobs, but
/// blanks and line ends there are passed over.
#include <cstddef>
#include <string>
#include <vector>

constexpr std::size_t kMaxDiscoveryJob = 1024; ///< bytes between the two exit sequences

/// What a job asks for.
struct DiscoveryJob {
    std::string strAddress; ///< of the NETADDR= clause, not empty, not examined further
    std::string strNumber;  ///< of the SRVQ= clause, a decimal number as it stood there
};

/// What was found, in its order: a job, or with strRefusal the reason why something is none.
struct DiscoveryFind {
    DiscoveryJob job;       ///< of no meaning with a refusal
    std::string strRefusal; ///< empty for a job
};

/// Takes apart what stands between the exit sequences. An empty text, or the reason of the refusal.
std::string ParseDiscoveryJob(std::string const &strContent, DiscoveryJob *pJob);

/// The value of the last clause of that key: texts that go round collect clauses at their end, and
/// the end is what the sender wrote. False if there is none.
bool FindClause(std::string const &strText, std::string const &strKey, std::string *pstrValue);

/// Bytes may come in pieces of any size. Holds little more than one job of the largest size.
class CDiscoveryScanner {
public:
    /// Takes cb bytes that have come, and hands out what is complete by now.
    std::vector<DiscoveryFind> Feed(char const *p, std::size_t cb);

    /// No more is coming for now: what is left was cut off. At most one refusal.
    std::vector<DiscoveryFind> Flush();

    /// In the middle of something; a lone exit sequence is the end of what came before.
    bool HasRest() const;

private:
    bool Step(std::vector<DiscoveryFind> *pFinds);
    bool SkipToStart(std::vector<DiscoveryFind> *pFinds);
    void TakeContent(std::size_t nEnd, std::vector<DiscoveryFind> *pFinds);

    std::string m_strRest;
    bool m_fSkipping = false; // through what has been refused already
};
