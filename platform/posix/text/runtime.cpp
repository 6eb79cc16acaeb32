#include "platform/runtime.h"

#include "platform/common/utf8.h"
#include "platform/posix/text/textcase.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

namespace {

constinit std::atomic<std::uint32_t> g_dwSeed{1};

// The text with its terminator left out, as the decoder wants it.
std::string_view View(unsigned char const *psz)
{
    return reinterpret_cast<char const *>(psz);
}

// Bytes packed with the first one in the highest place, spelled out; at least one.
unsigned Unpack(unsigned int ch, char *pb)
{
    unsigned cb = 0;
    for (int nShift = 24; nShift >= 0; nShift -= 8) {
        auto const b = static_cast<unsigned char>(ch >> nShift);
        if (cb > 0 || b != 0 || nShift == 0) {
            pb[cb++] = static_cast<char>(b);
        }
    }
    return cb;
}

unsigned int Pack(char const *pb, unsigned cb)
{
    unsigned int ch = 0;
    for (unsigned i = 0; i < cb; ++i) {
        ch = ch << 8 | static_cast<unsigned char>(pb[i]);
    }
    return ch;
}

void CopyPart(char *pszOut, int cbOut, std::string_view part)
{
    if (pszOut == nullptr) {
        return;
    }
    std::size_t const cb = std::min(part.size(), static_cast<std::size_t>(cbOut - 1));
    std::memcpy(pszOut, part.data(), cb);
    pszOut[cb] = '\0';
}

} // namespace

namespace crt {

int rand()
{
    std::uint32_t dwOld = g_dwSeed.load();
    std::uint32_t dwNew;
    do {
        dwNew = dwOld * 214013u + 2531011u;
    } while (!g_dwSeed.compare_exchange_weak(dwOld, dwNew));
    return static_cast<int>(dwNew >> 16 & 0x7FFF);
}

void srand(unsigned seed)
{
    g_dwSeed = seed;
}

} // namespace crt

unsigned char const *_mbsstr(unsigned char const *pszText, unsigned char const *pszSought)
{
    std::string_view const sought = View(pszSought);
    for (std::string_view text = View(pszText);; text.remove_prefix(Utf8Decode(text).cb)) {
        if (text.starts_with(sought)) {
            return reinterpret_cast<unsigned char const *>(text.data());
        }
        if (text.size() <= sought.size()) {
            return nullptr;
        }
    }
}

unsigned char *_mbsstr(unsigned char *pszText, unsigned char const *pszSought)
{
    unsigned char const *const pszRead = pszText;
    unsigned char const *const pszFound = _mbsstr(pszRead, pszSought);
    return pszFound != nullptr ? pszText + (pszFound - pszRead) : nullptr;
}

unsigned char *_mbslwr(unsigned char *pszText)
{
    unsigned char *psz = pszText;
    for (std::string_view text = View(pszText); !text.empty();) {
        CUtf8Char const c = Utf8Decode(text);
        char ab[4];
        if (c.bValid && Utf8Encode(Utf8ToLower(c.ch), ab) == c.cb) {
            std::memcpy(psz, ab, c.cb);
        }
        psz += c.cb;
        text.remove_prefix(c.cb);
    }
    return pszText;
}

unsigned int _mbctoupper(unsigned int ch)
{
    char ab[4];
    unsigned const cb = Unpack(ch, ab);
    CUtf8Char const c = Utf8Decode({ab, cb});
    if (!c.bValid || c.cb != cb) {
        return ch;
    }
    return Utf8Encode(Utf8ToUpper(c.ch), ab) == cb ? Pack(ab, cb) : ch;
}

char *_strdup(char const *psz)
{
    return psz != nullptr ? ::strdup(psz) : nullptr;
}

char *_itoa(int nValue, char *pszOut, int nRadix)
{
    char *psz = pszOut;
    if (nRadix >= 2 && nRadix <= 36) {
        bool const bMinus = nRadix == 10 && nValue < 0;
        unsigned n = bMinus ? 0u - static_cast<unsigned>(nValue) : static_cast<unsigned>(nValue);
        do {
            *psz++ = "0123456789abcdefghijklmnopqrstuvwxyz"[n % static_cast<unsigned>(nRadix)];
            n /= static_cast<unsigned>(nRadix);
        } while (n != 0);
        if (bMinus) {
            *psz++ = '-';
        }
    }
    *psz = '\0';
    std::reverse(pszOut, psz);
    return pszOut;
}

void _splitpath(char const *pszPath, char *pszDrive, char *pszDir, char *pszName, char *pszExt)
{
    std::string_view path = pszPath;
    std::size_t const cbDrive = path.size() >= 2 && path[1] == ':' ? 2 : 0;
    CopyPart(pszDrive, _MAX_DRIVE, path.substr(0, cbDrive));
    path.remove_prefix(cbDrive);

    std::size_t const cbDir = path.find_last_of("/\\") + 1; // npos + 1 is 0
    CopyPart(pszDir, _MAX_DIR, path.substr(0, cbDir));
    path.remove_prefix(cbDir);

    std::size_t const cbName = std::min(path.rfind('.'), path.size());
    CopyPart(pszName, _MAX_FNAME, path.substr(0, cbName));
    CopyPart(pszExt, _MAX_EXT, path.substr(cbName));
}

void _ftime(struct _timeb *pTime)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    *pTime = {now.tv_sec, static_cast<unsigned short>(now.tv_nsec / 1'000'000), 0, 0};
}

char *lstrcpynA(char *pszOut, char const *psz, int cchMax)
{
    if (pszOut == nullptr || psz == nullptr || cchMax < 1) {
        return nullptr;
    }
    std::size_t const cb = ::strnlen(psz, static_cast<std::size_t>(cchMax) - 1);
    std::memmove(pszOut, psz, cb);
    pszOut[cb] = '\0';
    return pszOut;
}

char *lstrcpyA(char *pszOut, char const *psz)
{
    if (pszOut == nullptr || psz == nullptr) {
        return nullptr;
    }
    std::memmove(pszOut, psz, std::strlen(psz) + 1);
    return pszOut;
}
