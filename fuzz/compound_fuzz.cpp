// Compound files of any bytes: opening and reading them ends with a code, and touches nothing else.

#include "platform/process.h"
#include "platform/storage.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace {

std::string const &ScratchFile()
{
    static std::string const s_strPath =
        (std::filesystem::temp_directory_path() /
         ("compound_fuzz." + std::to_string(GetCurrentProcessId())))
            .string();
    return s_strPath;
}

void ReadContents(IStorage &storage)
{
    IStream *pStream = nullptr;
    if (FAILED(storage.OpenStream(L"CONTENTS", nullptr, STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0,
                                  &pStream))) {
        return;
    }
    static char s_szBuffer[1 << 16];
    ULONG cbRead = 1;
    while (cbRead != 0 && SUCCEEDED(pStream->Read(s_szBuffer, sizeof s_szBuffer, &cbRead))) {
    }
    pStream->Release();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    std::string const &strPath = ScratchFile();
    std::FILE *const pFile = std::fopen(strPath.c_str(), "wb");
    if (pFile == nullptr) {
        return 0;
    }
    std::fwrite(pData, 1, cbData, pFile);
    std::fclose(pFile);

    std::basic_string<OLECHAR> const strWide(strPath.begin(), strPath.end());
    IStorage *pStorage = nullptr;
    if (SUCCEEDED(StgOpenStorage(strWide.c_str(), nullptr, STGM_SHARE_EXCLUSIVE | STGM_READWRITE,
                                 nullptr, 0, &pStorage))) {
        ReadContents(*pStorage);
        pStorage->Release();
    }
    std::remove(strPath.c_str());
    return 0;
}
