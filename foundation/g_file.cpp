#include "foundation/g_file.h"

#include "foundation/g_text.h"

#include <cstring>
#include <limits>

DWORD CGFile::Open(char const *pszFileName, DWORD dwAccess, DWORD dwShareMode,
                   SECURITY_ATTRIBUTES *pSecurity, DWORD dwDisposition, DWORD dwFlags,
                   HANDLE hTemplate)
{
    if (pszFileName == nullptr) {
        return eGE_FILE_OPEN;
    }
    if (m_hFile != INVALID_HANDLE_VALUE) {
        return eGE_FILE_ALREADY_OPEN;
    }
    m_hFile = CreateFileA(pszFileName, dwAccess, dwShareMode, pSecurity, dwDisposition, dwFlags,
                          hTemplate);
    return m_hFile != INVALID_HANDLE_VALUE ? eGE_OK : eGE_FILE_OPEN;
}

DWORD CGFile::Close()
{
    if (m_hFile == INVALID_HANDLE_VALUE) {
        return eGE_FILE_NOT_OPEN;
    }
    CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
    return eGE_OK;
}

template <class Transfer>
DWORD CGFile::MoveAll(DWORD dwFailure, void const *pBuffer, DWORD cbCount, DWORD *pcbDone,
                      Transfer fnTransfer)
{
    if (pBuffer == nullptr || pcbDone == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *pcbDone = 0;
    if (m_hFile == INVALID_HANDLE_VALUE) {
        return eGE_FILE_NOT_OPEN;
    }
    DWORD cbMoved = 0;
    if (!fnTransfer(&cbMoved) || cbMoved < cbCount) {
        return dwFailure;
    }
    *pcbDone = cbMoved;
    return eGE_OK;
}

DWORD CGFile::Read(void *pBuffer, DWORD cbCount, DWORD *pcbDone)
{
    return MoveAll(eGE_FILE_READ, pBuffer, cbCount, pcbDone, [&](DWORD *pcbMoved) {
        return ReadFile(m_hFile, pBuffer, cbCount, pcbMoved, /*lpOverlapped=*/nullptr);
    });
}

DWORD CGFile::Write(void const *pBuffer, DWORD cbCount, DWORD *pcbDone)
{
    return MoveAll(eGE_FILE_WRITE, pBuffer, cbCount, pcbDone, [&](DWORD *pcbMoved) {
        return WriteFile(m_hFile, pBuffer, cbCount, pcbMoved, /*lpOverlapped=*/nullptr);
    });
}

DWORD CGFile::Append(void const *pBuffer, DWORD cbCount, DWORD *pcbDone)
{
    return MoveAll(eGE_FILE_WRITE, pBuffer, cbCount, pcbDone, [&](DWORD *pcbMoved) {
        return PlatAppendFile(m_hFile, pBuffer, cbCount, pcbMoved);
    });
}

DWORD CGFile::Seek(LONG nMode, LONG nDistance)
{
    DWORD const dwMethod = nMode == 1 ? FILE_CURRENT : nMode == 2 ? FILE_END : FILE_BEGIN;
    if (m_hFile == INVALID_HANDLE_VALUE) {
        return eGE_OK;
    }
    DWORD const dwPlace =
        SetFilePointer(m_hFile, nDistance, /*lpDistanceToMoveHigh=*/nullptr, dwMethod);
    return dwPlace != static_cast<DWORD>(-1) ? eGE_OK : eGE_FILE_SEEK;
}

DWORD CGFile::ReadDword(DWORD *pdwValue)
{
    if (pdwValue == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *pdwValue = 0;
    DWORD cbDone = 0;
    return Read(pdwValue, sizeof *pdwValue, &cbDone) == eGE_OK ? eGE_OK : eGE_FILE_READ;
}

DWORD CGFile::WriteDword(DWORD dwValue)
{
    DWORD cbDone = 0;
    return Write(&dwValue, sizeof dwValue, &cbDone);
}

DWORD CGFile::ReadString(char *pszBuffer, DWORD cbLimit)
{
    if (pszBuffer == nullptr || cbLimit == 0) {
        return eGE_NULL_ARGUMENT;
    }
    std::memset(pszBuffer, 0, cbLimit);
    for (DWORD cbStored = 0; cbStored < cbLimit; ++cbStored) {
        DWORD cbDone = 0;
        if (Read(&pszBuffer[cbStored], 1, &cbDone) != eGE_OK) {
            return eGE_FILE_READ;
        }
        if (pszBuffer[cbStored] == '\0') {
            break;
        }
    }
    return eGE_OK;
}

DWORD CGFile::WriteString(char const *pszText)
{
    char const *pszSource = pszText != nullptr ? pszText : g_aszText[eGT_EMPTY_DEFAULT];
    std::size_t const cchSource = std::strlen(pszSource);
    if (cchSource >= std::numeric_limits<DWORD>::max()) {
        return eGE_FILE_WRITE;
    }
    DWORD cbDone = 0;
    return Write(pszSource, static_cast<DWORD>(cchSource + 1), &cbDone);
}
