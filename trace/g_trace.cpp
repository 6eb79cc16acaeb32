#include "trace/g_trace.h"

#include "platform/file.h"
#include "platform/process.h"
#include "platform/runtime.h"
#include "platform/sync.h"

#include <bit>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

std::atomic<std::uint64_t> g_TdMode{0};
std::atomic<HWND> g_hTdWindow{nullptr};
std::atomic<std::uint64_t> g_TdModuleMask{0};
std::atomic<DWORD> g_TdLevelMask{0};
std::atomic<DWORD> g_fTdAutoStart{0};
std::atomic<DWORD> g_fTdTimeStamp{0};
std::atomic<DWORD> g_fTdExeName{0};
std::atomic<LONG> g_cTdModules{0};
std::atomic<LONG> g_cTdLevels{0};
std::atomic<std::uint64_t> g_TdCurrentModule{0};
std::atomic<DWORD> g_TdCurrentLevel{0};

CPlatMutex g_TdTextLock;
char g_szTdPath[260];
char g_szTdDebugFile[260];
char g_szTdTitle[64];
char g_szTdExeName[256];
char g_TdModuleNames[kcTdModules][8];
char g_TdLevelNames[kcTdLevels][4];

namespace {

constexpr char kszTdKey[] = "SOFTWARE\\Norvale\\TraceDeck";
constexpr char kszDefaultFile[] = "c:\\debug.log";

// Offered to the read of a short name, whatever its row holds.
constexpr DWORD kcbShortNameRead = 128;

constexpr int kcWindowTries = 60;
constexpr DWORD kdwWindowPause = 200; // ms

// A line and its terminator; the debugger's line end comes on top.
constexpr std::size_t kcbLine = 256;

std::atomic<bool> g_fConnecting{false};

// Cut to the size of its place and terminated. The place goes by reference: so the compiler sees that it is
// used, and asks for its lock.
template <std::size_t cb>
void CopyText(char (&szPlace)[cb], char const *psz)
{
    std::snprintf(szPlace, cb, "%s", psz);
}

template <auto &szPlace>
void StoreText(char const *psz)
{
    CPlatGuard const guard(g_TdTextLock);
    CopyText(szPlace, psz);
}

template <std::size_t cb>
struct CTextCopy {
    explicit CTextCopy(char const (&szPlace)[cb]) { std::memcpy(m_szText, szPlace, cb); }

    char m_szText[cb];
};

template <auto &szPlace>
auto TextOf()
{
    CPlatGuard const guard(g_TdTextLock);
    return CTextCopy(szPlace);
}

// Reads a text that fits into szValue. @return whether it could be read; szValue is terminated then.
template <std::size_t cb>
bool ReadText(HKEY hKey, char const *pszName, char (&szValue)[cb])
{
    DWORD dwType = 0;
    DWORD cbValue = cb;
    if (RegQueryValueExA(hKey, pszName, nullptr, &dwType, reinterpret_cast<BYTE *>(szValue),
                         &cbValue) != 0) {
        return false;
    }
    // The registry keeps what was put there, a terminator or none.
    szValue[cbValue < cb ? cbValue : cb - 1] = '\0';
    return true;
}

template <auto &szPlace>
void LoadText(HKEY hKey, char const *pszName)
{
    char szValue[sizeof(szPlace)];
    if (ReadText(hKey, pszName, szValue)) {
        StoreText<szPlace>(szValue);
    }
}

// A value that is narrower fills the low bytes; a missing or a wider one leaves the place as it was.
template <class T>
void LoadNumber(HKEY hKey, char const *pszName, std::atomic<T> &place)
{
    T value = place.load();
    DWORD dwType = 0;
    DWORD cb = sizeof(value);
    if (RegQueryValueExA(hKey, pszName, nullptr, &dwType, reinterpret_cast<BYTE *>(&value), &cb) ==
        0) {
        place.store(value);
    }
}

// The one setting whose default comes back. Stored once, so that no line of another thread goes to the
// default file in between.
void LoadDebugFile(HKEY hKey)
{
    char szValue[sizeof(g_szTdDebugFile)];
    StoreText<g_szTdDebugFile>(ReadText(hKey, "DebugFilePath", szValue) ? szValue : kszDefaultFile);
}

void LoadExeName()
{
    char szPath[260] = "";
    GetModuleFileNameA(nullptr, szPath, sizeof(szPath));
    szPath[sizeof(szPath) - 1] = '\0';
    char szName[_MAX_FNAME] = "";
    _splitpath(szPath, nullptr, nullptr, szName, nullptr);
    StoreText<g_szTdExeName>(szName);
}

// The row's subkey, or null.
HKEY OpenRow(HKEY hTable, LONG nRow)
{
    char szRow[34];
    HKEY hRow = nullptr;
    _itoa(static_cast<int>(nRow), szRow, 10);
    return RegOpenKeyExA(hTable, szRow, 0, KEY_QUERY_VALUE, &hRow) == 0 ? hRow : nullptr;
}

// Goes through the rows of one table. @return how many count.
template <auto &names>
LONG LoadRows(HKEY hTable, bool fNeedsName)
{
    constexpr LONG kcRows = sizeof(names) / sizeof(names[0]);
    LONG nRow = 0;
    for (; nRow < kcRows; ++nRow) {
        HKEY const hRow = OpenRow(hTable, nRow);
        if (hRow == nullptr) {
            break;
        }
        char szName[kcbShortNameRead];
        bool const fRead = ReadText(hRow, "Short Name", szName);
        RegCloseKey(hRow);
        if (fRead) {
            CPlatGuard const guard(g_TdTextLock);
            CopyText(names[nRow], szName);
        }
        if (fNeedsName && (!fRead || szName[0] == '\0')) {
            break;
        }
    }
    return nRow;
}

template <auto &names>
void LoadTable(HKEY hKey, char const *pszTable, bool fNeedsName, std::atomic<LONG> &cFilled)
{
    HKEY hTable = nullptr;
    if (RegOpenKeyExA(hKey, pszTable, 0, KEY_READ, &hTable) != 0) {
        return;
    }
    cFilled.store(LoadRows<names>(hTable, fNeedsName));
    RegCloseKey(hTable);
}

bool FindViewer()
{
    HWND const hWnd = FindWindowA(nullptr, TextOf<g_szTdTitle>().m_szText);
    g_hTdWindow.store(hWnd);
    return hWnd != nullptr;
}

bool StartViewerProgram()
{
    STARTUPINFOA startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(TextOf<g_szTdPath>().m_szText, /*pszCommandLine=*/nullptr, nullptr, nullptr,
                        /*fInherit=*/TRUE, 0,
                        /*pEnvironment=*/nullptr, /*pszDirectory=*/nullptr, &startup, &process)) {
        return false;
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
}

void TellUser(char const *pszText)
{
    MessageBoxA(nullptr, pszText, nullptr, 0);
}

// Starts the viewer and waits for its window.
bool StartViewer()
{
    if (!StartViewerProgram()) {
        TellUser("ERROR!  Unable to start the TraceDeck executable!");
        return false;
    }
    for (int n = 0; n < kcWindowTries; ++n) {
        SleepEx(kdwWindowPause, FALSE);
        if (FindViewer()) {
            return true;
        }
    }
    TellUser("ERROR!  Unable to find the TraceDeck window!");
    return false;
}

void ConnectViewer()
{
    // From here on the mode has the bit, so that a failure is met once and not at every call.
    if (!TdLoadSettings(eTM_VIEWER) || (g_TdMode.load() & eTM_FILE) != 0) {
        return;
    }
    if (!FindViewer() && (g_fTdAutoStart.load() == 0 || !StartViewer())) {
        return;
    }
    g_TdMode.fetch_or(eTM_VIEWER);
}

// A line under construction. One that does not fit keeps its first 254 characters, as the viewer shows it.
class CTraceLine {
public:
    __attribute__((format(printf, 2, 3))) void Add(char const *pszFmt, ...)
    {
        va_list args;
        va_start(args, pszFmt);
        AddV(pszFmt, args);
        va_end(args);
    }
    __attribute__((format(printf, 2, 0))) void AddV(char const *pszFmt, va_list args)
    {
        if (m_fCut) {
            return;
        }
        std::size_t const cbRoom = kcbLine - m_cch;
        int const cch = std::vsnprintf(m_szLine + m_cch, cbRoom, pszFmt, args);
        m_fCut = cch >= 0 && static_cast<std::size_t>(cch) >= cbRoom;
        if (m_fCut) {
            m_cch = kcbLine - 2;
        } else if (cch > 0) {
            m_cch += static_cast<std::size_t>(cch);
        }
        m_szLine[m_cch] = '\0';
    }
    void AddLineEnd()
    {
        std::memcpy(m_szLine + m_cch, "\r\n", 3);
        m_cch += 2;
    }
    bool HasLineEnd() const
    {
        return m_cch >= 2 && (m_szLine[m_cch - 2] == '\r' || m_szLine[m_cch - 2] == '\n');
    }
    char const *GetText() const { return m_szLine; }
    std::size_t GetLength() const { return m_cch; }

private:
    char m_szLine[kcbLine + 2] = "";
    std::size_t m_cch = 0;
    bool m_fCut = false;
};

// The number of the one bit in a mask, -1 for any other mask.
int BitOf(std::uint64_t mask)
{
    return std::has_single_bit(mask) ? std::countr_zero(mask) : -1;
}

void AddTimeStamp(CTraceLine &line)
{
    struct _timeb now;
    _ftime(&now);
    auto const nStamp = static_cast<std::uint32_t>(now.time) * 1000u + now.millitm;
    line.Add("{%.8u}", static_cast<unsigned>(nStamp));
}

void AddHead(CTraceLine &line)
{
    if (g_fTdTimeStamp.load() != 0) {
        AddTimeStamp(line);
    }
    int const nModule = BitOf(g_TdCurrentModule.load());
    int const nLevel = BitOf(g_TdCurrentLevel.load());
    CPlatGuard const guard(g_TdTextLock);
    bool const fModule = nModule >= 0 && nModule < g_cTdModules.load() && nModule < kcTdModules;
    bool const fLevel = nLevel >= 0 && nLevel < g_cTdLevels.load() && nLevel < kcTdLevels;
    line.Add("%s", fModule ? g_TdModuleNames[nModule] : "[OTHER]");
    line.Add("%s", fLevel ? g_TdLevelNames[nLevel] : "- ");
    if (g_fTdExeName.load() != 0) {
        line.Add("\"%s\" ", g_szTdExeName);
    }
}

void SendToDebugger(char const *pszLine)
{
    DWORD const dwError = GetLastError();
    OutputDebugStringA(pszLine);
    if (GetLastError() != dwError) {
        SetLastError(dwError);
    }
}

// Opened and closed for each line: whoever reads or removes the file is never in our way. The name may be
// somebody's pipe, at which a write waits for a while: after one that waited for nothing, nobody tries again
// for ten times as long.
void AppendToFile(CTraceLine const &line)
{
    using Clock = std::chrono::steady_clock;
    static std::atomic<Clock::time_point> s_heldOffUntil{};
    Clock::time_point const start = Clock::now();
    if (start < s_heldOffUntil.load()) {
        return;
    }
    int const fd = _open(TextOf<g_szTdDebugFile>().m_szText,
                         _O_RDWR | _O_APPEND | _O_CREAT | _O_BINARY, _S_IWRITE);
    if (fd == -1) {
        return;
    }
    bool const fWritten =
        _write(fd, line.GetText(), static_cast<unsigned>(line.GetLength())) != -1 &&
        (line.HasLineEnd() || _write(fd, "\r\n", 2) != -1);
    _close(fd);
    Clock::time_point const end = Clock::now();
    if (!fWritten && end - start > std::chrono::milliseconds(100)) {
        s_heldOffUntil.store(end + 10 * (end - start));
    }
}

bool IsLogged()
{
    return (g_TdMode.load() & (eTM_VIEWER | eTM_DEBUGGER | eTM_FILE)) != 0 &&
           (g_TdCurrentModule.load() & g_TdModuleMask.load()) != 0 &&
           (g_TdCurrentLevel.load() & g_TdLevelMask.load()) != 0;
}

} // namespace

DWORD TdLoadSettings(std::uint64_t bits)
{
    LoadExeName();
    HKEY hKey = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kszTdKey, 0, KEY_READ, &hKey) != 0) {
        StoreText<g_szTdDebugFile>(kszDefaultFile);
        return 0;
    }

    std::atomic<DWORD> dwDebugFile{0};
    LoadText<g_szTdPath>(hKey, "Path");
    LoadDebugFile(hKey);
    LoadNumber(hKey, "DebugFile", dwDebugFile);
    LoadText<g_szTdTitle>(hKey, "Title");
    LoadNumber(hKey, "Module Mask", g_TdModuleMask);
    LoadNumber(hKey, "Level Mask", g_TdLevelMask);
    LoadNumber(hKey, "Auto Start", g_fTdAutoStart);
    LoadNumber(hKey, "Time Stamp", g_fTdTimeStamp);
    LoadNumber(hKey, "Exe Name", g_fTdExeName);
    if (dwDebugFile.load() != 0) {
        g_TdMode.store(eTM_FILE);
    }
    TdLoadTables(hKey);
    RegCloseKey(hKey);
    g_TdMode.fetch_or(bits);
    return 1;
}

void TdLoadTables(HKEY hKey)
{
    LoadTable<g_TdModuleNames>(hKey, "Modules", /*fNeedsName=*/false, g_cTdModules);
    LoadTable<g_TdLevelNames>(hKey, "Levels", /*fNeedsName=*/true, g_cTdLevels);
}

void TdConnect()
{
    if ((g_TdMode.load() & eTM_VIEWER) != 0 || g_fConnecting.exchange(true)) {
        return;
    }
    ConnectViewer();
    g_fConnecting.store(false);
}

void TdSetCurrent(std::uint64_t module, DWORD dwLevel)
{
    g_TdCurrentModule.store(module);
    g_TdCurrentLevel.store(dwLevel);
}

void TdLog(char const *pszFmt, ...)
{
    if (!IsLogged()) {
        return;
    }
    CTraceLine line;
    AddHead(line);
    va_list args;
    va_start(args, pszFmt);
    line.AddV(pszFmt, args);
    va_end(args);

    std::uint64_t const mode = g_TdMode.load();
    if ((mode & eTM_VIEWER) != 0) {
        TdSendLine(line.GetText());
    }
    if ((mode & eTM_DEBUGGER) != 0) {
        line.AddLineEnd();
        SendToDebugger(line.GetText());
    }
    if ((mode & eTM_FILE) != 0) {
        AppendToFile(line);
    }
}

void TdSendLine(char const *pszText)
{
    HWND const hWnd = g_hTdWindow.load();
    if (hWnd == nullptr) {
        return;
    }
    COPYDATASTRUCT data = {};
    data.cbData = static_cast<DWORD>(std::strlen(pszText) + 1);
    data.lpData = const_cast<char *>(pszText);
    SendMessageA(hWnd, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data));
}

char const *TdGuidToText(GUID guid)
{
    static thread_local char szGuid[40];
    std::snprintf(szGuid, sizeof(szGuid), "{%.8X-%.4X-%.4X-%.2X%.2X-%.2X%.2X%.2X%.2X%.2X%.2X}",
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0],
                  guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return szGuid;
}
