#pragma once

// The clauses of an option text: KEY=value;

#include "platform/base.h"

#include <optional>
#include <string>
#include <string_view>

/// What stands between the first strKey ("KEY=") and the next ";"; nothing if either is missing.
std::optional<std::string> ClauseOf(std::string_view strText, std::string_view strKey);

/// The decimal number that the clause's value begins with, 0 if it begins with none; nothing without such
/// a clause. A number below 0 comes out modulo 2 to the power of 32, one that is out of the range of an
/// int as the nearest.
std::optional<DWORD> NumberOfClause(std::string_view strText, std::string_view strKey);

/// The number that the agent's filter of repeated datagrams sees in a text.
inline std::optional<DWORD> KickSequence(std::string_view strText)
{
    return NumberOfClause(strText, "KICKSEQ=");
}
