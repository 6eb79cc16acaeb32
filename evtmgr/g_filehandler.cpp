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
                            CGFileEvtHandler::GetModuleName()}))
        return 0;

    bool const fNamed = GRegQueryText(strKey.m_pszText, "File Name", strValue.m_pszText);
    if (fNamed)
        GTextJoin(m_strFileName, {strValue.m_pszText});
    // Unlike all other values a missing one does not keep what was there: a log is kept only while the
    // registry says so.
    if (!GRegQueryNumber(strKey.m_pszText, "Append", m_fAppend))
        m_fAppend = 0;
    if (fNamed && m_State == 1)
        OpenLogFile(m_fAppend != 0 ? eOF_APPEND : eOF_TRUNCATE);
    return fNamed ? 0 : 1;
}

LONG CGFileEvtHandler::IsOn()
{
    return m_State == 1 ? 1 : 0;
}

DWORD CGFileEvtHandler::WriteText(char *pszText)
{
    if (pszText == nullptr)
        return 0;
    std::strcat(pszText, g_aszText[eGT_CRLF]);
    DWORD const cch = static_cast<DWORD>(std::strlen(pszText));
    // Without a mutex the wait fails at once, and the line is written all the same.
    if (WaitForSingleObject(m_hFileMutex, INFINITE) == WAIT_ABANDONED)
        EndCutLine();
    DWORD cbDone = 0;
    DWORD const dwResult = CGFile::Append(pszText, cch, &cbDone);
    ReleaseMutex(m_hFileMutex);
    return dwResult;
}

/// Called when another process died with the mutex in hand: if it was killed in the middle of its write,
/// the line that it left is ended here, so that ours does not become the tail of it.
void CGFileEvtHandler::EndCutLine()
{
    HANDLE const hLog =
        CreateFileA(m_strFileName.m_pszText, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    /*pSecurity=*/nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                    /*hTemplate=*/nullptr);
    if (hLog == INVALID_HANDLE_VALUE)
        return;
    char chLast = '\n';
    DWORD cbDone = 0;
    SetFilePointer(hLog, -1, nullptr, FILE_END); // fails on an empty log, which has no line to end
    ReadFile(hLog, &chLast, 1, &cbDone, nullptr);
    CloseHandle(hLog);
    if (cbDone == 1 && chLast != '\n')
        CGFile::Append(g_aszText[eGT_CRLF], 2, &cbDone);
}

DWORD CGFileEvtHandler::OpenLogFile(DWORD how)
{
    bool const fKeep = how == eOF_APPEND || m_pEvtMgr->m_nMode == eEM_FINAL_REPORT;
    DWORD dwResult = 0;
    CGFile::Close();
    if (m_hFileMutex != nullptr)
        dwResult = GMutexClose(&m_hFileMutex);
    if (m_strFileName.m_pszText == nullptr)
        return dwResult;
    if (GTextJoin(m_strMutexName, {m_strFileName.m_pszText}))
        GMutexCreateNamed(&m_hFileMutex, m_strMutexName.m_pszText);
    return CGFile::Open(m_strFileName.m_pszText, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        /*pSecurity=*/nullptr, fKeep ? OPEN_ALWAYS : CREATE_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL, /*hTemplate=*/nullptr);
}
