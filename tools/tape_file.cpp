#include "tools/tape_file.h"

#include "platform/file.h"
#include "platform/runtime.h"
#include "platform/sync.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

std::string Reason(DWORD dwError)
{
    switch (dwError) {
    case ERROR_DISK_FULL:
        return "the disk is full";
    case ERROR_ACCESS_DENIED:
        return "not allowed";
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return "there is no such folder";
    default:
        return "error " + std::to_string(dwError);
    }
}

} // namespace

double TapeTime(std::chrono::steady_clock::duration sinceBegin)
{
    std::chrono::duration<double, std::milli> const ms = sinceBegin;
    return std::round(ms.count() * 1000) / 1000;
}

CTapeFile::~CTapeFile()
{
    if (m_hFile != nullptr) {
        CloseHandle(m_hFile);
    }
}

bool CTapeFile::Open(std::string const &strFile, std::string const &strProgram, unsigned cDevices,
                     TapeMaskParts const &mask, std::string *pstrError)
{
    CPlatGuard const lock(m_mx);
    m_strFile = strFile;
    m_strProgram = strProgram.substr(0, strProgram.find(' '));
    HANDLE const hFile = CreateFileA(strFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        *pstrError = "cannot write " + strFile + ": " + Reason(GetLastError());
        return false;
    }
    m_hFile = hFile;
    m_begun = std::chrono::steady_clock::now();
    Json head{{"tape", 1}, {"program", strProgram}};
    if (cDevices > 0) {
        head["devices"] = cDevices;
    }
    head["masked"] = mask.Names();
    if (!Put(head.dump() + "\n")) {
        *pstrError = "cannot write " + strFile + ": " + Reason(GetLastError());
        return false;
    }
    return true;
}

bool CTapeFile::Put(std::string const &strLine)
{
    DWORD cbWritten = 0;
    if (!WriteFile(m_hFile, strLine.data(), static_cast<DWORD>(strLine.size()), &cbWritten,
                   nullptr)) {
        return false;
    }
    if (cbWritten != strLine.size()) {
        SetLastError(ERROR_DISK_FULL);
        return false;
    }
    ++m_cLines;
    return true;
}

void CTapeFile::Write(Json const &line, std::chrono::milliseconds later)
{
    CPlatGuard const lock(m_mx);
    if (m_hFile == nullptr) {
        return;
    }
    Json whole{{"t", TapeTime(std::chrono::steady_clock::now() - m_begun + later)}};
    whole.update(line);
    if (Put(whole.dump(-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace) + "\n")) {
        return;
    }
    std::fprintf(stderr, "%s: the tape %s ends after %llu lines: %s; all else goes on\n",
                 m_strProgram.c_str(), m_strFile.c_str(), m_cLines, Reason(GetLastError()).c_str());
    CloseHandle(m_hFile);
    m_hFile = nullptr;
}
