#include "platform/common/utf8.h"

namespace {

bool IsTrail(std::string_view text, std::size_t i)
{
    return i < text.size() && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
}

// How many bytes a lead byte announces; 0 for a byte that leads nothing.
unsigned AnnouncedBytes(unsigned char b)
{
    return b < 0x80                ? 1
           : b >= 0xC2 && b < 0xE0 ? 2
           : b >= 0xE0 && b < 0xF0 ? 3
           : b >= 0xF0 && b < 0xF5 ? 4
                                   : 0;
}

// Neither spelled longer than need be, nor half of a surrogate pair, nor beyond Unicode.
bool IsProper(char32_t ch, unsigned cb)
{
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    return ch >= kLeast[cb] && ch <= 0x10FFFF && (ch < 0xD800 || ch > 0xDFFF);
}

} // namespace

CUtf8Char Utf8Decode(std::string_view text)
{
    auto const bLead = static_cast<unsigned char>(text[0]);
    CUtf8Char const single{bLead, 1, bLead < 0x80};
    unsigned const cb = AnnouncedBytes(bLead);
    if (cb < 2) {
        return single;
    }
    char32_t ch = bLead & (0x7Fu >> cb);
    for (unsigned i = 1; i < cb; ++i) {
        if (!IsTrail(text, i)) {
            return single;
        }
        ch = ch << 6 | (static_cast<unsigned char>(text[i]) & 0x3Fu);
    }
    return IsProper(ch, cb) ? CUtf8Char{ch, cb, true} : single;
}

unsigned Utf8Encode(char32_t ch, char *pb)
{
    if (ch < 0x80) {
        pb[0] = static_cast<char>(ch);
        return 1;
    }
    unsigned const cb = ch < 0x800 ? 2 : ch < 0x10000 ? 3 : 4;
    for (unsigned i = cb - 1; i > 0; --i) {
        pb[i] = static_cast<char>(0x80 | (ch & 0x3F));
        ch >>= 6;
    }
    pb[0] = static_cast<char>((0xF00u >> cb & 0xFF) | ch);
    return cb;
}
