#pragma once

/// @file
/// The one channel for diagnostics. Code anywhere reports an event: two category masks, a level and a
/// text in the manner of printf. The manager is a queue of event handlers; each decides for itself
/// whether an event concerns it, builds its own line and delivers it, to the trace viewer or to a log
/// file. Every switch, mask, level, category name and file name comes from the registry, and can be read
/// again while the manager runs (README.md has the table).
///
/// Diagnostic sites do not include this header but foundation/g_site.h. A host that wants diagnostics
/// uses evtmgr/g_evthost.h.
///
/// Life: CreateEvtMgr makes a manager, RemoveEvtMgr ends it and says what the process still holds. No
/// other thread may be at a diagnostic site while a manager that g_pEvtMgr points to is removed: a site
/// takes no lock, and may have loaded the pointer already. g_evthost.h tells a host how to see to that.
///
/// Threads: any thread may report and reload. The queue mutex (m_hMutex of CGQueue, recursive) is held
/// for a whole traversal and guards handlers, tables and the id string; behind it come the named mutex of
/// a log file and the leaf lock of the trace client. A report that arises within a traversal on the same
/// thread enters a nested traversal.

#include "evtmgr/g_category.h"
#include "evtmgr/g_evthandler.h"
#include "foundation/g_queue.h"
#include "foundation/g_site.h"
#include "foundation/g_string.h"
#include "platform/base.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>

/// @{
/// Keys under HKEY_LOCAL_MACHINE.
inline constexpr char kszBaseCategoryKey[] = "SOFTWARE\\Norvale\\Skiffmail\\EvtMgr\\Base Category";
inline constexpr char kszModulesKey[] = "SOFTWARE\\Norvale\\Skiffmail\\EvtMgr\\Modules";
/// @}

/// What a manager is for.
enum : DWORD {
    eEM_NORMAL = 0,
    eEM_FINAL_REPORT = 2, ///< the temporary manager of RemoveEvtMgr: a log is never truncated
};

/// Kinds of handlers.
enum : DWORD { eHK_TRACE_VIEWER = 0, eHK_FILE = 1 };

/// Operations of a traversal, the first argument of ForEachNode; the second is the record.
enum : DWORD {
    eEO_QUERY_BASE = 0, ///< EvtQueryBaseType
    eEO_QUERY_FULL = 1, ///< EvtQueryFullType
    eEO_WRITE_BASE = 2, ///< EvtWriteBaseType
    eEO_WRITE_FULL = 3, ///< EvtWriteFullType
    eEO_RELOAD = 4,     ///< null
    eEO_REMOVE = 5,     ///< null
};

/// Records of the traversals; they live on the stack of the thread that reports.
struct EvtQueryBaseType {
    std::uint64_t m_BaseMask; ///< of the event; custom mask and level count as 0
    LONG *m_pfOn;             ///< set to 1 by a handler that takes it
};
/// The same for an event with all its marks.
struct EvtQueryFullType {
    std::uint64_t m_BaseMask;   ///< of the event
    std::uint64_t m_CustomMask; ///< of the event
    LONG m_nLevel;              ///< of the event
    LONG *m_pfOn;               ///< set to 1 by a handler that takes it
};
/// An event to write; custom mask and level count as 0.
struct EvtWriteBaseType {
    char const *m_pszText;    ///< the finished text
    std::uint64_t m_BaseMask; ///< of the event
};
/// The same for an event with all its marks.
struct EvtWriteFullType {
    char const *m_pszText;      ///< the finished text
    std::uint64_t m_BaseMask;   ///< of the event
    std::uint64_t m_CustomMask; ///< of the event
    LONG m_nLevel;              ///< of the event
};

/// The manager: a queue whose nodes are the handlers. Any thread may report; see README.md for the locks.
class CGEvtMgr : public CGQueue {
public:
    /// Creates the base table and both handlers and reads the registry; a handler for which there is no
    /// memory is missing. @param pszName the manager's key below Modules, copied.
    /// @param nMode eEM_NORMAL or eEM_FINAL_REPORT.
    CGEvtMgr(char const *pszName, DWORD nMode);
    /// Removes the handlers, the trace handler first, then the base table. Only by the last Release.
    ~CGEvtMgr() override;

    /// Makes a handler and appends it to the list, with two references: that of its creation and the
    /// list's. Without memory for the node the handler is dropped again.
    /// @param kind eHK_TRACE_VIEWER or eHK_FILE; any other makes nothing.
    /// @return result of AddNode; 0 when no handler could be made.
    DWORD AddEvtHandler(DWORD kind);

    /// Loads the base table, under the queue mutex. @return result of CCategory::Load, which is 0.
    DWORD LoadBaseCategory();
    /// Reads the text at the head of every line, under the queue mutex. @return 1 when the value could
    /// not be read and the old text stays, else 0, also when there is no memory to read it.
    DWORD LoadIdString();
    /// Base table, id string, then LoadParams of each handler, all under the queue mutex: no line mixes
    /// the parameters of two loads. @return that of LoadIdString.
    DWORD ReloadParameters();

    /// Whether some handler could take such an event. A "no" is final; after a "yes" the handlers are asked.
    /// Most events end here, so it takes no lock but for the first event after a handler came or changed.
    bool MayBeTaken(std::uint64_t base, std::uint64_t custom, LONG nLevel);

    /// Runs one operation on the handler of a node, under the queue mutex.
    /// @return 1 to go on, 0 to stop: a query stops at the first handler that takes the event, and every
    /// operation that needs a record stops without one.
    int VisitNode(CNode *pNode, DWORD op, void *pRec) override PLAT_REQUIRES(this);

    /// Reports an event to every handler that takes it. Formats once, and only when some handler takes
    /// it; a text of more than 1023 characters is cut. Any thread; leaves GetLastError as it was.
    /// @return always 0: a report never fails its caller.
    DWORD Report(std::uint64_t base, std::uint64_t custom, LONG nLevel, char const *pszFmt, ...)
        __attribute__((format(printf, 5, 6)));
    /// The same with the arguments as a list.
    DWORD ReportV(std::uint64_t base, std::uint64_t custom, LONG nLevel, char const *pszFmt,
                  va_list args) __attribute__((format(printf, 5, 0)));
    /// The same with a base mask alone: custom mask 0 and level 0.
    DWORD ReportBase(std::uint64_t base, char const *pszFmt, ...)
        __attribute__((format(printf, 3, 4)));

    /// Reports a memory block in lines of 16 bytes, hexadecimal and as text; a last line with the rest
    /// always comes, blank when nothing is left. It goes through g_pEvtMgr, not through this object.
    /// @param base, custom, nLevel as for Report. @param pData may be null when cbData is 0.
    /// @param cbData bytes.
    void DumpRawData(std::uint64_t base, std::uint64_t custom, LONG nLevel, void const *pData,
                     DWORD cbData);

    std::atomic<LONG> m_fReady; ///< 0 until the constructor has finished, then 1; nothing clears it
    CGString m_strModuleName;   ///< the key below Modules; constant after construction
    CGString m_strIdString PLAT_GUARDED_BY(this);     ///< head of every line
    CCategory *m_pBaseCategory PLAT_GUARDED_BY(this); ///< one reference; null without memory
    DWORD m_nMode;                                    ///< eEM_...; constant after construction

private:
    void SumUpHandlers();

    // What the handlers that are on take between them, and the counts of handlers' changes and of nodes
    // that it goes by. Written under the queue mutex, read by any site. A site that reads some before a
    // change and some after it is right all the same: what is taken before and after passes each of the
    // tests by either, and an event that is taken only once is just a little early or late.
    std::atomic<DWORD> m_cChangesSummedUp{0};
    std::atomic<DWORD> m_cAddsSummedUp{0};
    std::atomic<std::uint64_t> m_BaseTaken{0};
    std::atomic<std::uint64_t> m_CustomTaken{0};
    std::atomic<LONG>
        m_nLevelTaken; // the highest; the lowest number there is while no handler is on
};

/// CreateEvtMgr calls not yet matched by RemoveEvtMgr; 0 at load. CreateEvtMgr and RemoveEvtMgr must not
/// run on two threads at once.
extern std::atomic<LONG> g_cEvtMgrs;

/// NewEvtMgr with eEM_NORMAL, counted in g_cEvtMgrs also when there was no memory for the manager. Touches
/// g_pEvtMgr only if ppMgr is its address; a host may as well store *ppMgr there itself. @return always 0.
DWORD CreateEvtMgr(CGEvtMgr **ppMgr, char const *pszName);

/// Makes a manager, ready for use, and stores it, or null without memory, in *ppMgr. The caller holds
/// the one reference, counted in g_cObjects. @param ppMgr not null. @param pszName, nMode as for the constructor. @return always 0.
DWORD NewEvtMgr(CGEvtMgr **ppMgr, char const *pszName, DWORD nMode);

/// Reads all parameters of g_pEvtMgr again, and says so before and after. Any thread, but no signal
/// handler; a process without a manager does nothing. @return always 0.
DWORD LoadParameters();

/// Ends the manager in *ppMgr, which is null afterwards, and reports what the process still holds
/// through a second manager of the same name: leaks, if this is the last manager and anything is left
/// over, else the three totals. The pointer is cleared once the manager is gone, so that what its parts
/// report of their own end still passes through it.
/// REQUIRES: no other thread can be at a diagnostic site that uses *ppMgr (see g_evthost.h).
/// @return eGE_NULL_ARGUMENT for a null ppMgr, else 0.
DWORD RemoveEvtMgr(CGEvtMgr **ppMgr, char const *pszName);
