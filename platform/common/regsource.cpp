#include "platform/common/regsource.h"

#include "platform/registry.h"

#include <algorithm>
#include <cstring>
#include <utility>

void CRegSource::SetPath(std::string strPath)
{
    m_strPath = std::move(strPath);
    m_strProblem.clear();
    m_dwError = 0;
    m_bKnown = false;
    m_fresh.reset();
    Clear();
}

DWORD CRegSource::Refresh()
{
    if (m_bKnown && LookAtRegFile(m_strPath, nullptr).stamp == m_stamp) {
        return m_dwError;
    }
    m_bKnown = false;
    std::string strBytes;
    CRegFileLook const look = LookAtRegFile(m_strPath, &strBytes);
    bool const bHasBytes = look.stamp.bExists && look.strReason.empty();
    if (!bHasBytes || m_fresh != strBytes) {
        m_fresh.reset(); // also when TakeOver throws
        m_dwError = TakeOver(look, strBytes);
    }
    m_fresh.reset();
    if (bHasBytes && !look.bSettled) {
        m_fresh = std::move(strBytes);
    }
    m_stamp = look.stamp;
    m_bKnown = look.bSettled;
    return m_dwError;
}

DWORD CRegSource::TakeOver(CRegFileLook const &look, std::string_view bytes)
{
    if (!look.strReason.empty()) {
        m_strProblem = m_strPath + ": " + look.strReason;
        return look.dwError;
    }
    if (!look.stamp.bExists) {
        Clear();
        m_strProblem.clear();
        return 0;
    }
    std::optional<CRegProblem> const problem = Load(bytes);
    m_strProblem =
        !problem ? std::string()
                 : m_strPath + ":" + std::to_string(problem->nLine) + ": " + problem->strReason;
    return problem ? ERROR_INVALID_DATA : 0;
}

DWORD CopyRegText(std::string_view text, char *psz, DWORD cb)
{
    if (psz != nullptr && cb > 0) {
        std::size_t const cbCopy = std::min<std::size_t>(text.size(), cb - 1);
        std::memcpy(psz, text.data(), cbCopy);
        psz[cbCopy] = '\0';
    }
    return static_cast<DWORD>(text.size());
}

std::uint64_t PlatRegistryStamp()
{
    std::string strPath(PlatRegistryFile(nullptr, 0) + 1, '\0');
    PlatRegistryFile(strPath.data(), static_cast<DWORD>(strPath.size()));
    CRegFileStamp const stamp = LookAtRegFile(strPath.c_str(), nullptr).stamp;
    if (!stamp.bExists) {
        return 0;
    }
    std::uint64_t qwStamp = 1;
    for (std::uint64_t const qw : {stamp.qwSize, stamp.qwId, stamp.qwWritten, stamp.qwChanged}) {
        qwStamp = (qwStamp ^ qw) * 0x9E3779B97F4A7C15u;
        qwStamp ^= qwStamp >> 32;
    }
    return qwStamp | 1;
}
