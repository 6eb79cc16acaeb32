#include "platform/posix/storage/storage_record.h"

#include <cstdint>
#include <cwchar>
#include <utility>

namespace {

class CTypeRecord {
public:
    CTypeRecord(CLSID const &clsid, CLIPFORMAT cf, OLECHAR const *pszUserType)
    {
        Dword(0xFFFE0001u);
        Dword(0x00000A03u);
        Dword(0xFFFFFFFFu);
        m_str.append(reinterpret_cast<char const *>(&clsid), sizeof clsid);
        AsciiText(pszUserType);
        Format(cf);
        Dword(0);
        Dword(0x71B239F4u);
        WideText(pszUserType);
        Format(cf);
        Dword(0);
    }

    std::string m_str;

private:
    void Word(std::uint32_t w)
    {
        m_str += static_cast<char>(w & 0xFF);
        m_str += static_cast<char>(w >> 8 & 0xFF);
    }
    void Dword(std::uint32_t dw)
    {
        Word(dw & 0xFFFF);
        Word(dw >> 16);
    }
    void Format(CLIPFORMAT cf)
    {
        if (cf == 0) {
            Dword(0);
            return;
        }
        Dword(0xFFFFFFFFu); // a number follows, one of the system's own formats
        Dword(cf);
    }
    void AsciiText(OLECHAR const *psz)
    {
        Dword(static_cast<std::uint32_t>(std::wcslen(psz) + 1));
        for (; *psz != L'\0'; ++psz) {
            m_str += *psz < 0x80 ? static_cast<char>(*psz) : '?';
        }
        m_str += '\0';
    }
    void WideText(OLECHAR const *psz)
    {
        std::string strUnits;
        std::swap(strUnits, m_str);
        for (; *psz != L'\0'; ++psz) {
            auto const nChar = static_cast<std::uint32_t>(*psz);
            if (nChar > 0xFFFF) {
                Word(0xD7C0 + (nChar >> 10));
                Word(0xDC00 + (nChar & 0x3FF));
            } else {
                Word(nChar);
            }
        }
        Word(0);
        std::swap(strUnits, m_str);
        Dword(static_cast<std::uint32_t>(strUnits.size() / 2));
        m_str += strUnits;
    }
};

} // namespace

std::string StorageTypeRecord(CLSID const &clsid, CLIPFORMAT cf, OLECHAR const *pszUserType)
{
    return CTypeRecord(clsid, cf, pszUserType).m_str;
}
