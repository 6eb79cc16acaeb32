#include "session/option_text.h"

#include <algorithm>
#include <charconv>
#include <climits>

std::optional<std::string> ClauseOf(std::string_view strText, std::string_view strKey)
{
    std::size_t const nKey = strText.find(strKey);
    if (nKey == std::string_view::npos) {
        return std::nullopt;
    }
    std::size_t const nBegin = nKey + strKey.size();
    std::size_t const nEnd = strText.find(';', nBegin);
    if (nEnd == std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(strText.substr(nBegin, nEnd - nBegin));
}

std::optional<DWORD> NumberOfClause(std::string_view strText, std::string_view strKey)
{
    auto const value = ClauseOf(strText, strKey);
    if (!value) {
        return std::nullopt;
    }
    std::size_t const nFirst = std::min(value->find_first_not_of(" \t\n\v\f\r"), value->size());
    char const *pFirst = value->data() + nFirst;
    char const *const pEnd = value->data() + value->size();
    if (pEnd - pFirst > 1 && pFirst[0] == '+' && pFirst[1] != '-') {
        ++pFirst;
    }
    int nNumber = 0;
    bool const bNegative = pFirst != pEnd && *pFirst == '-';
    if (std::from_chars(pFirst, pEnd, nNumber).ec == std::errc::result_out_of_range) {
        nNumber = bNegative ? INT_MIN : INT_MAX;
    }
    return static_cast<DWORD>(nNumber);
}
