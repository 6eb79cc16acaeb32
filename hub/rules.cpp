#include "hub/settings.h"

#include <algorithm>

bool FitsPattern(std::string_view strPattern, std::string_view strText)
{
    // Where to go on when what follows the last "*" does not fit: one character further on.
    std::size_t nPattern = 0;
    std::size_t nText = 0;
    std::size_t nStar = std::string_view::npos;
    std::size_t nAfter = 0;
    while (nText < strText.size()) {
        char const ch = nPattern < strPattern.size() ? strPattern[nPattern] : '\0';
        if (nPattern < strPattern.size() && ch == '*') {
            nStar = nPattern++;
            nAfter = nText;
        } else if (nPattern < strPattern.size() && (ch == '?' || ch == strText[nText])) {
            ++nPattern;
            ++nText;
        } else if (nStar != std::string_view::npos) {
            nPattern = nStar + 1;
            nText = ++nAfter;
        } else {
            return false;
        }
    }
    return strPattern.find_first_not_of('*', nPattern) == std::string_view::npos;
}

namespace {

bool FitsOneOf(std::vector<std::string> const &patterns, std::string_view strText)
{
    return patterns.empty() ||
           std::any_of(patterns.begin(), patterns.end(), [&](std::string const &strPattern) {
               return FitsPattern(strPattern, strText);
           });
}

} // namespace

bool IsForSink(std::vector<HubRule> const &rules, std::string const &strSink,
               std::string_view strDevice, std::string_view strType, std::string_view strText)
{
    return rules.empty() || std::any_of(rules.begin(), rules.end(), [&](HubRule const &rule) {
               return std::find(rule.rgstrSink.begin(), rule.rgstrSink.end(), strSink) !=
                          rule.rgstrSink.end() &&
                      FitsOneOf(rule.rgstrDevice, strDevice) &&
                      FitsOneOf(rule.rgstrType, strType) && FitsOneOf(rule.rgstrText, strText);
           });
}
