// The discovery job: a printer job language envelope around an option string, with which a device that
// is reached along a print path learns where the agent listens.
//
//     ESC%-12345X@PJL SELECT="<01><15>TYPE=<ECHO>;NETADDR=10.1.2.3:1037;SRVQ=4711;"ESC%-12345X
#include <cstring>
#include <new>

#include "agent/agent_lock.h"
#include "agent/QOMANoAg.h"
#include "foundation/g_file.h"
#include "foundation/g_text.h"

namespace {

constexpr char kExitLanguage[] = "\x1B%-12345X";
constexpr char kSelect[] = "@PJL SELECT=\"\x01\x15TYPE=<ECHO>;"; // its quote is closed at the end
constexpr char kSequenceKey[] = "SRVQ=";
constexpr char kFileName[] = "A CGFile object";

// A counted CGFile, for a scope.
class CJobFile {
public:
    CJobFile() : m_pFile(new(std::nothrow) CGFile(kFileName))
    {
        if (m_pFile != nullptr) {
            INC_OBJECT_COUNTER(eEC_NONE, m_pFile->m_strObjectName.m_pszText);
        } else {
            NEW_OPERATOR(eEC_NONE, kFileName);
        }
    }
    ~CJobFile()
    {
        if (m_pFile != nullptr) {
            m_pFile->Release();
        }
    }
    CJobFile(CJobFile const &) = delete;
    CJobFile &operator=(CJobFile const &) = delete;

    bool Exists() const { return m_pFile != nullptr; }

    // Writes pszJob whole to a target that is there already. 0, 110 or 29.
    DWORD WriteTo(char const *pszTarget, char const *pszJob)
    {
        if (m_pFile->Open(pszTarget, GENERIC_WRITE, FILE_SHARE_WRITE, /*pSecurity=*/nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                          /*hTemplate=*/nullptr) != eGE_OK) {
            return ERROR_OPEN_FAILED;
        }
        DWORD cbDone = 0;
        DWORD const dwWritten =
            m_pFile->Write(pszJob, static_cast<DWORD>(std::strlen(pszJob)), &cbDone);
        m_pFile->Close();
        return dwWritten == eGE_OK ? NO_ERROR : ERROR_WRITE_FAULT;
    }

private:
    CGFile *const m_pFile;
};

} // namespace

DWORD CNotifyAgent::InitiateSrvQDiscovery(DWORD *pdwSequence, char const *pszTarget)
{
    auto const Write = [&]() -> DWORD {
        CJobFile file;
        if (!file.Exists()) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        CString strHead(kExitLanguage);
        strHead += kSelect;
        CString strJob;
        DWORD const dwBuilt = InsertNetAddr(strHead, &strJob, pdwSequence, 1, kSequenceKey);
        if (dwBuilt != NO_ERROR) {
            return dwBuilt;
        }
        strJob += g_aszText[eGT_QUOTE];
        strJob += kExitLanguage;
        return file.WriteTo(pszTarget, strJob);
    };
    return RunConnected(
        m_hMutex, [this] { return IsDeviceInitialized(); },
        [&]() -> DWORD {
            if (pszTarget == nullptr || pdwSequence == nullptr) {
                return ERROR_INVALID_PARAMETER;
            }
            DWORD const dwResult = CatchNoMemory(Write);
            if (dwResult != NO_ERROR) {
                *pdwSequence = 0;
            }
            return dwResult;
        });
}
