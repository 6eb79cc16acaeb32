#include "platform/posix/text/textcase.h"

#include "platform/common/utf8.h"

#include <locale.h>
#include <wctype.h>

namespace {

locale_t UnicodeLocale()
{
    static locale_t const s_locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return s_locale;
}

} // namespace

char32_t Utf8ToLower(char32_t ch)
{
    if (ch < 0x80) {
        return ch >= 'A' && ch <= 'Z' ? ch + ('a' - 'A') : ch;
    }
    locale_t const locale = UnicodeLocale();
    return locale != nullptr ? towlower_l(static_cast<wint_t>(ch), locale) : ch;
}

char32_t Utf8ToUpper(char32_t ch)
{
    if (ch < 0x80) {
        return ch >= 'a' && ch <= 'z' ? ch - ('a' - 'A') : ch;
    }
    locale_t const locale = UnicodeLocale();
    return locale != nullptr ? towupper_l(static_cast<wint_t>(ch), locale) : ch;
}

std::string Utf8Fold(std::string_view text)
{
    std::string strFolded;
    strFolded.reserve(text.size());
    while (!text.empty()) {
        CUtf8Char const c = Utf8Decode(text);
        char ab[4];
        if (c.bValid) {
            strFolded.append(ab, Utf8Encode(Utf8ToUpper(c.ch), ab));
        } else {
            strFolded += text[0];
        }
        text.remove_prefix(c.cb);
    }
    return strFolded;
}
