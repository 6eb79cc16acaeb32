#include "evtmgr/g_filehandler.h"

#include "evtmgr/g_evtmgr.h"
#include "evtmgr/g_evttext.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"

#include <cstring>

CGFileEvtHandler::CGFileEvtHandler(CGEvtMgr *pEvtMgr)
    : CGBaseEvtHandler(pEvtMgr, "CGFileEvtHandler:CGBaseEvtHandler"),
      CGFile("CGFileEvtHandler:CGFile"), m_fAppend(0), m_hFileMutex(nullptr)
{
    m_strKeyName.Set("File");
    CGFileEvtHandler::LoadModuleParams();
}

CGFileEvtHandler::~CGFileEvtHandler()
{
    CGFile::Close();
    GMutexClose(&m_hFileMutex);
}

char const *CGFileEvtHandler::GetModuleName()
{
    return GTextOf(m_strKeyName.m_pszText);
}

DWORD CGFileEvtHandler::LoadModuleParams()
{
    CGString strKey;
    CGString strValue;
    strValue.Alloc(kcbRegText);
    if (strValue.m_pszText == nullptr ||
        !GTextJoin(strKey, {kszModulesKey, g_aszText[eGT_BACKSLASH],
                            GTextOf(m_pEvtMgr->m_strModuleName.m_pszText), g_aszText[eGT_BACKSLASH],
                            CGFileEvtHandler::GetModuleName()})) {
        return 0;
    }

    bool const fNamed = GRegQueryText(strKey.m_pszText, "File Name", strValue.m_pszText);
    if (fNamed) {
        GTextJoin(m_strFileName, {strValue.m_pszText});
    }
    // Unlike all other values a missing one does not keep what was there: a log is kept only while the
    // registry says so.
    if (!GRegQueryNumber(strKey.m_pszText, "Append", m_fAppend)) {
        m_fAppend = 0;
    }
    if (fNamed && m_State == 1) {
        OpenLogFile(m_fAppend != 0 ? eOF_APPEND : eOF_TRUNCATE);
    }
    return fNamed ? 0 : 1;
}

LONG CGFileEvtHandler::IsOn()
{
    return m_State == 1 ? 1 : 0;
}

DWORD CGFileEvtHandler::WriteText(char *pszText)
{
    if (pszText == nullptr) {
        return 0;
    }
    std::strcat(pszText, g_aszText[eGT_CRLF]);
    DWORD const cch = static_cast<DWORD>(std::strlen(pszText));
    // Without a mutex the wait fails at once, and the line is written all the same.
    DWORD const dwWait = WaitForSingleObject(m_hFileMutex, INFINITE);
    bool const fOwned = dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED;
    if (m_fMayBeCut || dwWait == WAIT_ABANDONED) {
        EndCutLine(fOwned);
    }
    DWORD const dwResult = m_fDisk ? Append(pszText, cch) : AppendToStream(pszText, cch);
    if (dwResult == eGE_FILE_WRITE) {
        EndCutLine(fOwned); // at once, since the next line may be another process's
    }
    ReleaseMutex(m_hFileMutex);
    return dwResult;
}

DWORD CGFileEvtHandler::Append(char const *pszText, DWORD cch)
{
    DWORD cbDone = 0;
    return CGFile::Append(pszText, cch, &cbDone);
}

// A pipe whose reader does not read takes nothing for as long as the system waits for it, and all who
// report wait with us. So for ten times as long nobody tries again.
DWORD CGFileEvtHandler::AppendToStream(char const *pszText, DWORD cch)
{
    Clock::time_point const start = Clock::now();
    if (start < m_heldOffUntil) {
        return eGE_FILE_WRITE;
    }
    DWORD const dwResult = Append(pszText, cch);
    if (dwResult != eGE_OK) {
        Clock::time_point const end = Clock::now();
        m_heldOffUntil = end + 10 * (end - start);
    }
    return dwResult;
}

// The last bytes of the log, two of them if it has so many. @return how many; 0 also when it may not be read.
DWORD CGFileEvtHandler::ReadTail(char (&szTail)[2])
{
    HANDLE const hLog =
        CreateFileA(m_strFileName.m_pszText, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    /*pSecurity=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                    /*hTemplate=*/nullptr);
    if (hLog == INVALID_HANDLE_VALUE) {
        return 0;
    }
    DWORD cbTail = 0;
    LONG nHigh = -1;
    SetFilePointer(hLog, -2, &nHigh, FILE_END); // a shorter log is read from its beginning
    if (GetFileType(hLog) == FILE_TYPE_DISK) {  // the name may have gone to something else
        ReadFile(hLog, szTail, sizeof szTail, &cbTail, nullptr);
    }
    CloseHandle(hLog);
    return cbTail;
}

// Ends a line that a writer who was killed, or a full disk, left without its end, so that the next one does
// not become its tail. Only where there is a file to look at: what stands in a pipe is its reader's.
void CGFileEvtHandler::EndCutLine(bool fOwned)
{
    m_fMayBeCut = false;
    char szTail[2];
    DWORD const cbTail = m_fDisk ? ReadTail(szTail) : 0;
    if (cbTail == 0 || szTail[cbTail - 1] == '\n' || Append(g_aszText[eGT_CRLF], 2) == eGE_OK) {
        return;
    }
    // No room: the end takes the place of the line's own last bytes. Only with the mutex in hand, as these
    // might be somebody else's otherwise.
    LONG const cbCut = cbTail == 2 && szTail[0] != '\n' ? 2 : 1;
    LONG nHigh = -1;
    DWORD cbDone = 0;
    m_fMayBeCut = !fOwned ||
                  SetFilePointer(m_hFile, -cbCut, &nHigh, FILE_END) == INVALID_SET_FILE_POINTER ||
                  CGFile::Write(g_aszText[cbCut == 2 ? eGT_CRLF : eGT_LF],
                                static_cast<DWORD>(cbCut), &cbDone) != eGE_OK;
}

DWORD CGFileEvtHandler::OpenLogFile(DWORD how)
{
    bool const fKeep = how == eOF_APPEND || m_pEvtMgr->m_nMode == eEM_FINAL_REPORT;
    DWORD dwResult = 0;
    CGFile::Close();
    if (m_hFileMutex != nullptr) {
        dwResult = GMutexClose(&m_hFileMutex);
    }
    if (m_strFileName.m_pszText == nullptr) {
        return dwResult;
    }
    if (GTextJoin(m_strMutexName, {m_strFileName.m_pszText})) {
        GMutexCreateNamed(&m_hFileMutex, m_strMutexName.m_pszText);
    }
    dwResult =
        CGFile::Open(m_strFileName.m_pszText, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                     /*pSecurity=*/nullptr, fKeep ? OPEN_ALWAYS : CREATE_ALWAYS,
                     FILE_ATTRIBUTE_NORMAL, /*hTemplate=*/nullptr);
    m_fDisk = dwResult == eGE_OK && GetFileType(m_hFile) == FILE_TYPE_DISK;
    m_fMayBeCut = fKeep;
    m_heldOffUntil = {};
    return dwResult;
}
