#pragma once

#include "platform/common/regfile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A registry file on the disk: which one it is, whether it has changed, what is wrong with it. Each target
// derives its registry from this and keeps the contents its own way. No lock of its own: the deriving
// class holds one around every call.

/// What tells one state of a file from another.
struct CRegFileStamp {
    bool bExists = false;     ///< false: the rest is 0
    std::uint64_t qwSize = 0; ///< bytes
    std::uint64_t qwId =
        0; ///< the file itself, apart from its name; 0 where the target has no such number
    std::uint64_t qwWritten = 0; ///< the target's own unit
    std::uint64_t qwChanged = 0; ///< likewise

    /// Whether both are of the same state.
    bool operator==(CRegFileStamp const &) const = default;
};

/// What a look at the file has shown.
struct CRegFileLook {
    CRegFileStamp stamp; ///< of the state that was seen, and read if it was asked for
    /// Last written so long ago that a later change is sure to have another stamp.
    bool bSettled = false;
    /// @{
    /// Why the file is there but cannot be had; empty otherwise.
    std::string strReason;
    DWORD dwError = 0;
    /// @}
};

/// Looks at a file, and reads it when pstrBytes is not null. One body for each target.
CRegFileLook LookAtRegFile(std::string const &strPath, std::string *pstrBytes);

/// See above; one for each process.
class CRegSource {
public:
    CRegSource() = default;
    virtual ~CRegSource() = default;
    CRegSource(CRegSource const &) = delete;
    CRegSource &operator=(CRegSource const &) = delete;

    /// Another file from now on. What the former one held no longer counts.
    void SetPath(std::string strPath);
    /// Sees to it that the contents are those of the file as it is now, or, when that is refused, the last
    /// good ones. 0, or the error number of the refusal. Throws std::bad_alloc, and is good for another try.
    DWORD Refresh();

    /// @{
    /// The file in use (empty: none), and why its present state is refused (empty: it is not).
    std::string const &Path() const { return m_strPath; }
    std::string const &Problem() const { return m_strProblem; }
    /// @}

protected:
    /// @{
    /// Puts new contents in the place of the old ones, or leaves the old ones and tells the problem.
    virtual std::optional<CRegProblem> Load(std::string_view bytes) = 0;
    virtual void Clear() = 0;
    /// @}

private:
    DWORD TakeOver(CRegFileLook const &look, std::string_view bytes);

    std::string m_strPath;
    std::string m_strProblem;
    DWORD m_dwError = 0;   // the number that belongs to m_strProblem
    bool m_bKnown = false; // m_stamp is of the state that was last read
    CRegFileStamp m_stamp;
    // The bytes that were last read, while the file is so young that its stamp cannot be relied on: it is
    // then read each time, but taken over only when it differs.
    std::optional<std::string> m_fresh;
};

/// Copies a text for a caller: cut to cb bytes, terminated unless cb is 0. Returns the whole length.
DWORD CopyRegText(std::string_view text, char *psz, DWORD cb);
