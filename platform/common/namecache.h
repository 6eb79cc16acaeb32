#pragma once

/// @file
/// Remembers the answers of reverse name lookups for a short time, found or not, since a lookup that finds
/// nothing can take many seconds and devices send again and again. The table is small and bounded; when it
/// is full the answer that is due to go first makes room. No lock of its own: the owner has one.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <string>

/// Names that were looked up, with their age.
class CNameCache {
public:
    using Time = std::chrono::steady_clock::time_point;  ///< when something is asked or stored
    static constexpr std::chrono::seconds kLifetime{30}; ///< of an answer
    static constexpr std::size_t kEntries = 64;          ///< answers at a time

    /// What a lookup gave.
    struct CAnswer {
        std::string strName; ///< empty when there is no name
        int nError = 0;      ///< why, then; 0 otherwise
    };

    /// The answer for an address (network order) that is still good at `now`, or null. Good until the next
    /// Store.
    CAnswer const *Find(std::uint32_t dwAddress, Time now) const
    {
        for (CEntry const &entry : m_entries) {
            if (entry.dwAddress == dwAddress && now < entry.expires) {
                return &entry.answer;
            }
        }
        return nullptr;
    }

    /// Keeps an answer for an address (network order) from `now` on.
    void Store(std::uint32_t dwAddress, CAnswer answer, Time now)
    {
        CEntry &entry = Place(dwAddress);
        entry.answer = std::move(answer);
        entry.dwAddress = dwAddress;
        entry.expires = now + kLifetime;
    }

private:
    struct CEntry {
        std::uint32_t dwAddress = 0;
        Time expires = Time::min();
        CAnswer answer;
    };

    CEntry &Place(std::uint32_t dwAddress)
    {
        auto const same = std::ranges::find(m_entries, dwAddress, &CEntry::dwAddress);
        return same != m_entries.end() ? *same
                                       : *std::ranges::min_element(m_entries, {}, &CEntry::expires);
    }

    std::array<CEntry, kEntries> m_entries;
};
