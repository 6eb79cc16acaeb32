#pragma once
/// @file
/// How long a client's search for its device pauses between two looks, across the objects that the client
/// makes for it one after the other: each restart of a link is a new object, and without a memory a device
/// that answers every look and then drops the link would be looked for again at once, for ever.

#include "platform/base.h"

#include <compare>
#include <string>

/// A client and a device of it.
struct LinkPauseKey {
    DWORD_PTR dwContext = 0; ///< that the client gives to all its objects
    std::string strDevice;   ///< where its device is

    auto operator<=>(LinkPauseKey const &) const = default; ///< any order
};

/// @{
/// Any thread; they do not fail, for want of memory they forget.
/// The pause, in milliseconds, that a search begins with; fGood when it follows a link that stood for long
/// enough to have been a good one.
DWORD FirstLinkPause(LinkPauseKey const &key, bool fGood) noexcept;
/// The pause that follows one of dwMilliseconds in the same search.
DWORD NextLinkPause(LinkPauseKey const &key, DWORD dwMilliseconds) noexcept;
/// @}
