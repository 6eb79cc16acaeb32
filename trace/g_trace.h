#pragma once

/// @file
/// The client of the trace viewer, a separate program that shows lines of text in a window: its settings
/// from the registry, the search for its window or the start of the program, and logging of a line to as
/// many as three places, the viewer, the debugger and a file. It filters by a module mask and a level mask
/// and does not depend on the event manager, whose trace handler uses TdLoadSettings and TdSendLine.
///
/// All state is of the process, zero or empty at load. Words are atomic; texts and short names are under
/// g_TdTextLock, a leaf: nothing is called under it. Any thread may call anything here.
///
/// Settings stand under `HKEY_LOCAL_MACHINE\SOFTWARE\Norvale\TraceDeck` (README.md has the table).

#include "platform/base.h"
#include "platform/com.h"
#include "platform/lock.h"
#include "platform/registry.h"
#include "platform/window.h"

#include <atomic>
#include <cstdint>

/// Bits of g_TdMode: where a line goes.
enum : std::uint64_t {
    eTM_VIEWER = 1,   ///< to the viewer; TdConnect has run
    eTM_DEBUGGER = 2, ///< to OutputDebugStringA
    eTM_FILE = 4,     ///< to the file
};

inline constexpr LONG kcTdModules = 64; ///< rows for modules, one for each bit of a mask
inline constexpr LONG kcTdLevels = 8;   ///< rows for levels

extern std::atomic<std::uint64_t> g_TdMode;       ///< eTM_... bits
extern std::atomic<HWND> g_hTdWindow;             ///< the viewer's window; once found it stays
extern std::atomic<std::uint64_t> g_TdModuleMask; ///< modules that are logged
extern std::atomic<DWORD> g_TdLevelMask;          ///< levels that are logged
extern std::atomic<DWORD> g_fTdAutoStart;         ///< not 0: TdConnect may start the viewer
extern std::atomic<DWORD> g_fTdTimeStamp;         ///< not 0: lines begin with a time stamp
extern std::atomic<DWORD> g_fTdExeName;           ///< not 0: lines carry the program's name
extern std::atomic<LONG> g_cTdModules;            ///< rows filled in g_TdModuleNames
extern std::atomic<LONG> g_cTdLevels;             ///< rows filled in g_TdLevelNames

/// @{
/// The module and the level of the line being logged, one bit each. Words of the process: threads that
/// log at once share them.
extern std::atomic<std::uint64_t> g_TdCurrentModule;
extern std::atomic<DWORD> g_TdCurrentLevel;
/// @}

/// Guards the texts below; taken last, nothing is called under it.
extern CPlatMutex g_TdTextLock;
extern char g_szTdPath[260] PLAT_GUARDED_BY(g_TdTextLock);      ///< the viewer's program file
extern char g_szTdDebugFile[260] PLAT_GUARDED_BY(g_TdTextLock); ///< the log file
extern char g_szTdTitle[64] PLAT_GUARDED_BY(g_TdTextLock);      ///< the viewer's window, exactly
extern char g_szTdExeName[256] PLAT_GUARDED_BY(g_TdTextLock);   ///< ours, without extension
extern char g_TdModuleNames[kcTdModules][8] PLAT_GUARDED_BY(g_TdTextLock); ///< short names, cut
extern char g_TdLevelNames[kcTdLevels][4] PLAT_GUARDED_BY(g_TdTextLock);   ///< short names, cut

/// Reads all settings. A missing value leaves its place as it was, except that the log file is
/// "c:\debug.log" again; a text that is wider than its place counts as missing.
/// @param bits ORed into g_TdMode at the end. With DebugFile not 0, eTM_FILE and these are all that
/// remains of the mode. @return 1 if the key could be opened, else 0 and the mode is not touched.
DWORD TdLoadSettings(std::uint64_t bits);

/// Reads the two tables of short names below an open key, which stays the caller's. Modules: rows 0 to
/// 63 until a subkey is missing; a row without a name keeps what it held and counts. Levels: rows 0 to
/// 7 until a subkey is missing or has no name.
void TdLoadTables(HKEY hKey);

/// Finds the viewer's window, or starts the viewer if the settings allow it and waits for its window,
/// 12 seconds at the most. A failure to start or to find it is told in a message box, once: the attempt
/// is not repeated while the mode has eTM_VIEWER. A call while another thread is at it does nothing.
void TdConnect();

/// Stores what the next TdLog speaks for. @param module one bit, to be named and let through.
/// @param dwLevel one bit.
void TdSetCurrent(std::uint64_t module, DWORD dwLevel);

/// Builds one line and delivers it to the places in g_TdMode, if current module and current level have
/// a bit in common with their masks. A line of more than 255 characters, without its line end, is cut to
/// 254. Blocks until the viewer has taken it; a file that takes nothing, as a pipe that is not read, loses
/// lines instead. Keeps GetLastError across the debugger's call.
void TdLog(char const *pszFmt, ...) __attribute__((format(printf, 1, 2)));

/// Sends one text, as it is, to the viewer's window with WM_COPYDATA: dwData 0, cbData the length plus
/// 1, lpData the text with its terminator. Without a window nothing happens; the answer is dropped.
/// Blocks until the viewer has taken it.
void TdSendLine(char const *pszText);

/// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", in upper case. The text is the calling thread's and lives
/// until its next call.
char const *TdGuidToText(GUID guid);
