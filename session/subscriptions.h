#pragma once

// What a person can ask to hear, by the names that command lines and settings use, and how long texts may be.

#include "agent/QOMANoAg.h"

#include <array>
#include <cstddef>

/// One kind of notification.
struct SubscriptionName {
    char const *pszName; ///< in lower case
    DWORD dwFlag;        ///< eNF_…
    bool bLocalOnly;     ///< a network link does not have it
};

inline constexpr std::array kSubscriptions{
    SubscriptionName{"select", eNF_SELECT, false},
    SubscriptionName{"adf", eNF_ADF, true},
    SubscriptionName{"button", eNF_SCANNER_BUTTON, true},
    SubscriptionName{"fax", eNF_FAX_UPLOAD, false},
};

/// All that a link has.
inline constexpr DWORD AllSubscriptions(bool bLocal)
{
    DWORD dwFlags = 0;
    for (SubscriptionName const &name : kSubscriptions) {
        dwFlags |= bLocal || !name.bLocalOnly ? name.dwFlag : 0;
    }
    return dwFlags;
}

/// Bytes of the name that a client wants to have at a device over a local link.
inline constexpr std::size_t kMaxOwnName = 63;

/// Bytes that a panel entry may have. Of what comes back with a pick the agent takes so many bytes: the entry,
/// what the agent added, over a network also what the device adds.
inline constexpr std::size_t EntryLimit(bool bLocal)
{
    constexpr std::size_t kMaxOption = 349;
    constexpr std::size_t kNetworkClauses =
        sizeof ";NETADDR=255.255.255.255:65535;SWINST=32767;;KICKSEQ=4294967295;" - 1;
    constexpr std::size_t kLocalClauses = sizeof ";NETADDR=;SWINST=32767;" - 1 + kMaxOwnName;
    return kMaxOption - (bLocal ? kLocalClauses : kNetworkClauses);
}
