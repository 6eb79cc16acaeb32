#pragma once

#include "evtmgr/g_evthandler.h"
#include "foundation/g_file.h"

#include <chrono>

/// How CGFileEvtHandler::OpenLogFile treats what the log holds.
enum : DWORD { eOF_TRUNCATE = 1, eOF_APPEND = 2 };

/// Appends each line to a log file that several processes may share. A mutex with the name of the file,
/// in lower case and with slashes, makes the move to the end and the write one step for all of them; it
/// is the last lock in the order, taken under the manager's queue mutex.
///
/// A line that a killed writer or a full disk cut is ended before the next one is written, also by a
/// process that comes later and appends. The log may be a pipe, a terminal or a device: then nothing is
/// ever read from it or repaired, and a reader that does not read loses lines instead of holding up
/// those who report: after a write that failed, lines are dropped for ten times as long as it took.
///
/// The two bases are separate objects of the reference-counted family: the manager counts on the
/// CGBaseEvtHandler, the count of the CGFile is never touched.
class CGFileEvtHandler : public CGBaseEvtHandler, public CGFile {
public:
    /// Reads file name and append switch, opens nothing.
    explicit CGFileEvtHandler(CGEvtMgr *pEvtMgr);
    /// Closes the log and its mutex.
    ~CGFileEvtHandler() override;

    /// "File".
    char const *GetModuleName() override;
    /// @{
    /// Reads file name and append switch, and opens the log anew when there is a name and the handler is
    /// on: truncated unless Append is not 0 or the manager is there for the final report. Otherwise the
    /// log stays as it is. @return 1 if the file name could not be read, else 0.
    DWORD LoadModuleParams() override;
    LONG IsOn() override;
    /// @}
    /// Appends CR and LF in place and writes the line behind all that the log holds. @return that of
    /// CGFile::Write; 0 for a null text.
    DWORD WriteText(char *pszText) override;

    /// Closes what is open and opens the log. @param how eOF_TRUNCATE or eOF_APPEND; the manager of the
    /// final report always appends. @return result of CGFile::Open; without a file name that of
    /// GMutexClose, 0 if there was no mutex.
    DWORD OpenLogFile(DWORD how);

    CGString m_strKeyName;   ///< "File"
    CGString m_strFileName;  ///< as the registry has it, the case kept for the file system
    CGString m_strMutexName; ///< the mutex name made of it
    LONG m_fAppend;          ///< not 0 keeps what is in the log when it is opened
    HANDLE m_hFileMutex;     ///< 0 when there is none

private:
    using Clock = std::chrono::steady_clock;

    DWORD Append(char const *pszText, DWORD cch);
    DWORD AppendToStream(char const *pszText, DWORD cch);
    DWORD ReadTail(char (&szTail)[2]);
    void EndCutLine(bool fOwned);

    bool m_fDisk = false;             // the log is a file, and no pipe, terminal or device
    bool m_fMayBeCut = false;         // nobody has looked yet whether its last line has an end
    Clock::time_point m_heldOffUntil; // for what is no file: nothing is written before
};
