#include "tools/showable.h"

#include <cstdint>
#include <cstdio>

namespace {

unsigned char ByteAt(std::string_view str, std::size_t i)
{
    return i < str.size() ? static_cast<unsigned char>(str[i]) : 0;
}

// The length of the UTF-8 character at the front of `str` if it can be shown: no control character of
// either set, no half or over-long one, none that turns the direction of the text. 0 if not.
std::size_t ShowableLength(std::string_view str)
{
    unsigned char const b = ByteAt(str, 0);
    if (b < 0x80) {
        return (b >= 0x20 && b != 0x7F) || b == '\t' ? 1 : 0;
    }
    std::size_t const cb = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
    std::uint32_t nChar = b & (0x7Fu >> cb);
    for (std::size_t i = 1; i < cb; ++i) {
        if ((ByteAt(str, i) & 0xC0) != 0x80) {
            return 0;
        }
        nChar = nChar << 6 | (ByteAt(str, i) & 0x3Fu);
    }
    constexpr std::uint32_t kanFirst[] = {0, 0, 0xA0, 0x800, 0x10000}; // 0xA0: behind the controls
    bool const fWhole = b >= 0xC2 && b <= 0xF4 && nChar >= kanFirst[cb] && nChar <= 0x10FFFF;
    bool const fSurrogate = nChar >= 0xD800 && nChar <= 0xDFFF;
    bool const fDirection = (nChar >= 0x200E && nChar <= 0x200F) ||
                            (nChar >= 0x2028 && nChar <= 0x202E) ||
                            (nChar >= 0x2066 && nChar <= 0x2069);
    return fWhole && !fSurrogate && !fDirection ? cb : 0;
}

} // namespace

std::string Showable(std::string_view str)
{
    std::string strOut;
    while (!str.empty()) {
        std::size_t const cb = ShowableLength(str);
        if (cb != 0) {
            strOut += str.substr(0, cb);
            str.remove_prefix(cb);
            continue;
        }
        char szByte[5];
        std::snprintf(szByte, sizeof szByte, "\\x%02X", ByteAt(str, 0));
        strOut += szByte;
        str.remove_prefix(1);
    }
    return strOut;
}
