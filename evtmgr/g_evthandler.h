#pragma once

#include "foundation/g_ref.h"
#include "foundation/g_string.h"
#include "platform/base.h"
#include "platform/lock.h"

#include <atomic>
#include <cstdint>

class CCategory;
class CGEvtMgr;

/// A base category bit that no site uses: the long name of its row is always on the line, as is that of
/// an error (eEB_ERROR).
inline constexpr std::uint64_t kBaseAlwaysNamed = 0x10;

/// Moves when a word of any handler's filter gets another value. What was summed up of handlers before
/// holds while it stands still.
extern std::atomic<DWORD> g_cFilterChanges;

/// A word of a handler's filter. It stands for a T in every expression, and may be set by hand as well as
/// by the registry, on any thread.
template <class T>
class CFilterWord {
public:
    /// As a T has them.
    /// @{
    CFilterWord(T value) : m_value(value) {}
    CFilterWord(CFilterWord const &) = delete;

    operator T() const { return m_value.load(std::memory_order_relaxed); }
    CFilterWord &operator=(CFilterWord const &other) { return *this = static_cast<T>(other); }
    CFilterWord &operator=(T value)
    {
        if (m_value.exchange(value) != value) {
            ++g_cFilterChanges;
        }
        return *this;
    }
    CFilterWord &operator|=(T bits) { return *this = *this | bits; }
    CFilterWord &operator&=(T bits) { return *this = *this & bits; }
    /// @}

private:
    std::atomic<T> m_value;
};

/// What all event handlers share: masks, level and state from the registry, the table of custom
/// categories, the filter, and the format of a line. A concrete handler adds the name of its registry
/// key, its own parameters, whether it can write at all, and the delivery of a finished line.
///
/// Lifetime: created by CGEvtMgr::AddEvtHandler, dies in the manager's destructor. It holds no
/// reference on the manager, which outlives it.
/// Threads: once constructed, everything here runs within a traversal of the manager, under its queue
/// mutex, so that filter, line and delivery of one event see one set of parameters. No lock of its own.
class CGBaseEvtHandler : public CGReference {
public:
    /// Makes the handler, switched off, with a custom table of defaults; the registry is first read by
    /// LoadParams.
    /// @param pEvtMgr the manager, not null. @param pszName object name, copied.
    CGBaseEvtHandler(CGEvtMgr *pEvtMgr, char const *pszName);
    /// Releases the custom table.
    ~CGBaseEvtHandler() override;

    /// The name of the handler's key under the manager's key; the text belongs to the handler.
    virtual char const *GetModuleName() = 0;
    /// Reads the handler's own parameters; runs after the common ones. The result is dropped.
    virtual DWORD LoadModuleParams() = 0;
    /// Not 0 when the handler can take events now.
    virtual LONG IsOn() = 0;
    /// Delivers one finished line.
    /// @param pszText may be extended in place by a line end of two bytes. Null is accepted and delivers
    /// nothing.
    /// @return a foundation result code, dropped by all callers above WriteLine.
    virtual DWORD WriteText(char *pszText) = 0;

    /// Reads custom table, masks, level and state, then LoadModuleParams. What the registry does not
    /// hold stays as it was. @return result of CCategory::Load, which is 0.
    DWORD LoadParams();

    /// @{
    /// The filter: allocates nothing, formats nothing. IsOn is asked once.
    /// @return 1 when the handler takes such an event, else 0.
    LONG IsEventOn(std::uint64_t base, std::uint64_t custom, LONG nLevel);
    LONG IsEventOn(std::uint64_t base) { return IsEventOn(base, 0, 0); }
    /// @}

    /// Builds the line of an event and hands it to WriteLine. It does not ask the filter.
    /// @param pszText not null. @param base, custom, nLevel the event's masks and level, for its names.
    /// @return the result of WriteLine; 0 when there is no memory for the line.
    DWORD WriteEvent(char const *pszText, std::uint64_t base, std::uint64_t custom, LONG nLevel)
        PLAT_REQUIRES(m_pEvtMgr);

    /// The same with custom mask 0 and level 0.
    DWORD WriteEvent(char const *pszText, std::uint64_t base) PLAT_REQUIRES(m_pEvtMgr)
    {
        return WriteEvent(pszText, base, 0, 0);
    }

    /// Hands a text to WriteText in a copy of its own, with room for a line end behind it.
    /// @param cb bytes for the text and its terminator. A text that does not fit keeps its first cb - 2
    /// characters. @param pszText not null.
    /// @return that of WriteText; eGE_OUT_OF_MEMORY when the copy cannot be had, or cb is below 1.
    DWORD WriteLine(LONG cb, char const *pszText);

    CFilterWord<std::uint64_t> m_BaseCategoryMask;   ///< base categories that the handler takes
    CFilterWord<std::uint64_t> m_CustomCategoryMask; ///< custom categories that the handler takes
    CFilterWord<LONG> m_Level;                       ///< the highest level that the handler takes
    CFilterWord<LONG> m_State;                       ///< 1 is on, anything else off
    CGEvtMgr *m_pEvtMgr;                             ///< not referenced
    CCategory *m_pCustomCategory; ///< one reference; null when there was no memory for it
};
