#pragma once
/// @file
/// A tape in the making: a file of JSON lines with the milliseconds since its beginning (docs/tape.md).

#include "platform/base.h"
#include "platform/lock.h"
#include "tools/tape_mask.h"

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>

/// Milliseconds of a moment, with three decimals.
double TapeTime(std::chrono::steady_clock::duration sinceBegin);

/// The file. Every function from any thread; the lock is a leaf.
class CTapeFile {
public:
    CTapeFile() = default;
    ~CTapeFile(); ///< closes it
    CTapeFile(CTapeFile const &) = delete;
    CTapeFile &operator=(CTapeFile const &) = delete;

    /// Makes the file, or empties it, and writes its first line: who records, how many devices if that is to
    /// be said (not 0), and what is masked. False with the reason.
    bool Open(std::string const &strFile, std::string const &strProgram, unsigned cDevices,
              TapeMaskParts const &mask, std::string *pstrError);

    /// Writes an object with its time, that of the call unless it is said to be later, in front. When the file
    /// takes no more, the program's user is told so once on the standard error, and nothing more is written.
    void Write(nlohmann::ordered_json const &line, std::chrono::milliseconds later = {});

private:
    bool Put(std::string const &strLine) PLAT_REQUIRES(m_mx); // false with the last error set

    CPlatMutex m_mx;
    HANDLE m_hFile PLAT_GUARDED_BY(m_mx) = nullptr;
    std::string m_strFile PLAT_GUARDED_BY(m_mx);
    std::string m_strProgram PLAT_GUARDED_BY(m_mx);
    std::chrono::steady_clock::time_point m_begun PLAT_GUARDED_BY(m_mx);
    unsigned long long m_cLines PLAT_GUARDED_BY(m_mx) = 0;
};
