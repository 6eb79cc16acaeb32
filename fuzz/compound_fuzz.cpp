// Compound files of any bytes: opening and reading them ends with a code, and touches nothing else.

#include "fuzz/fuzz_input.h"
#include "platform/storage.h"

#include <fstream>

namespace {

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
    static std::string const s_strPath = ScratchFile();
    std::ofstream(s_strPath, std::ios::binary) << std::string(pData, pData + cbData);
    std::basic_string<OLECHAR> const strWide(s_strPath.begin(), s_strPath.end());
    IStorage *pStorage = nullptr;
    if (SUCCEEDED(StgOpenStorage(strWide.c_str(), nullptr, STGM_SHARE_EXCLUSIVE | STGM_READWRITE,
                                 nullptr, 0, &pStorage))) {
        ReadContents(*pStorage);
        pStorage->Release();
    }
    return 0;
}
