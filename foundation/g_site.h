/// @file
/// The diagnostic site: all that a source needs in order to report an event.
///
/// The event manager is built of foundation queues, and foundation queues report events. This header is
/// where the circle is cut: it knows the manager by name only, and evtmgr/ defines the three symbols.
///
/// Any thread may report. While g_pEvtMgr is null, which it is until a host installs a manager, a site
/// costs one load and evaluates none of its arguments.

#pragma once

#include "platform/base.h"

#include <atomic>
#include <cstdint>

class CGEvtMgr;

/// A place for a manager that a host stores into while any thread reads it. It stands for a CGEvtMgr * in
/// every expression: a site tests and follows it, and a host gives its address to CreateEvtMgr and
/// RemoveEvtMgr, as if it were a plain pointer.
class CGEvtMgrSlot {
public:
    constexpr CGEvtMgrSlot() = default;
    CGEvtMgrSlot(CGEvtMgrSlot const &) = delete;
    CGEvtMgrSlot &operator=(CGEvtMgrSlot const &) = delete;

    /// What it holds at this moment.
    operator CGEvtMgr *() const { return Ref().load(std::memory_order_acquire); }
    CGEvtMgr *operator->() const { return *this; } ///< the same, to call it at once
    /// Any thread that reads the pointer sees all that came before the store.
    CGEvtMgrSlot &operator=(CGEvtMgr *pEvtMgr)
    {
        Ref().store(pEvtMgr, std::memory_order_release);
        return *this;
    }
    /// For the functions that make and remove managers. What reads or writes through it while another
    /// thread may be at a site does so by std::atomic_ref, as they do.
    CGEvtMgr **operator&() { return &m_pEvtMgr; }

private:
    std::atomic_ref<CGEvtMgr *> Ref() const { return std::atomic_ref(m_pEvtMgr); }

    mutable CGEvtMgr *m_pEvtMgr = nullptr; // atomic_ref takes no constant, not even for a look
};

/// The manager that all sites use; null at load. Only a host of the event manager stores into it.
extern CGEvtMgrSlot g_pEvtMgr;

/// Non-zero once the manager has finished its constructor. pEvtMgr must not be null.
int GEvtMgrIsReady(CGEvtMgr const *pEvtMgr);

/// Hands one event to the manager's handlers; the text is formatted as by printf, up to 1023
/// characters. Never fails its caller: the result is for those who want to look. pEvtMgr must not be null.
DWORD GEvtMgrReport(CGEvtMgr *pEvtMgr, std::uint64_t fBase, std::uint64_t fCustom, LONG nLevel,
                    char const *pszFormat, ...) __attribute__((format(printf, 5, 6)));

/// Base category masks.
inline constexpr std::uint64_t eEB_ENTRY =
    0x01; ///< entry of a function; creation, removal of an object
inline constexpr std::uint64_t eEB_EXIT = 0x02;  ///< exit of a function
inline constexpr std::uint64_t eEB_INFO = 0x08;  ///< counters, parameters, totals
inline constexpr std::uint64_t eEB_ERROR = 0x20; ///< failures

/// @{
/// Levels. The two negative ones pass every handler that is on.
inline constexpr LONG eEL_SUMMARY = -2;
inline constexpr LONG eEL_ERROR = -1;
/// @}
inline constexpr LONG eEL_TRACE = 1;   ///< entry, exit, object life
inline constexpr LONG eEL_COUNTER = 2; ///< movements of the counters

/// Custom category masks. 0 in a counter macro (g_os.h) silences its report.
inline constexpr std::uint64_t eEC_NONE = 0;
inline constexpr std::uint64_t eEC_CREATE = 0x1000000000000000; ///< a queue thread or a node came
inline constexpr std::uint64_t eEC_DESTROY_NODE = 0x2000000000000000; ///< a node went
inline constexpr std::uint64_t eEC_OBJECT = 0x8000000000000000; ///< life of a CGReference object

/// Reports an event if there is a manager and it is ready; only then are the format's arguments evaluated.
#define G_REPORT(fBase, fCustom, nLevel, ...)                                                      \
    do {                                                                                           \
        CGEvtMgr *const pEvtMgrOfSite_ = g_pEvtMgr;                                                \
        if (pEvtMgrOfSite_ != nullptr && GEvtMgrIsReady(pEvtMgrOfSite_)) {                         \
            GEvtMgrReport(pEvtMgrOfSite_, (fBase), (fCustom), (nLevel), __VA_ARGS__);              \
        }                                                                                          \
    } while (0)
