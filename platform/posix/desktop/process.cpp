#include "platform/process.h"

#include "platform/console.h"
#include "platform/file.h"
#include "platform/lock.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/kernel/handle.h"
#include "platform/sync.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr DWORD kdwSignalBase = 128; // as shells tell a process that a signal ended
constexpr int knKillTime = 100;      // ms, for what nothing can refuse
constexpr int knPollSlice = 5;       // ms, where the kernel has no descriptors for processes

std::int64_t NowMilliseconds()
{
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1'000'000;
}

// Children whose handles were closed while they ran. Nobody will ask for their exit codes, but somebody
// must take them, or they stay in the system's table as long as we live.
class COrphans {
public:
    void Add(pid_t pid)
    {
        CPlatGuard const lock(m_mutex);
        m_apid.push_back(pid);
    }
    void Sweep()
    {
        CPlatGuard const lock(m_mutex);
        std::erase_if(m_apid, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
    }

private:
    CPlatMutex m_mutex; // a leaf
    std::vector<pid_t> m_apid PLAT_GUARDED_BY(m_mutex);
};

COrphans &Orphans()
{
    // Never destroyed: handles may be closed while the process's statics go.
    static COrphans *const s_pOrphans = new COrphans;
    return *s_pOrphans;
}

// A process that we started. Its handles share it.
class CChild {
public:
    explicit CChild(pid_t pid)
        : m_pid(pid), m_fdProcess(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))
    {
    }
    ~CChild()
    {
        if (!HasEnded()) {
            Orphans().Add(m_pid);
        }
        if (m_fdProcess >= 0) {
            ::close(m_fdProcess);
        }
    }
    CChild(CChild const &) = delete;
    CChild &operator=(CChild const &) = delete;

    DWORD ExitCode()
    {
        CPlatGuard const lock(m_mutex);
        return Look() ? m_dwExitCode : STILL_ACTIVE;
    }

    bool HasEnded()
    {
        CPlatGuard const lock(m_mutex);
        return Look();
    }

    bool Kill(UINT nExitCode)
    {
        CPlatGuard const lock(m_mutex);
        // Its number is its own as long as we have not looked at its end.
        if (Look() || ::kill(m_pid, SIGKILL) != 0) {
            return false;
        }
        m_fKilled = true;
        m_dwKillCode = nExitCode;
        return true;
    }

    DWORD Wait(DWORD dwMilliseconds)
    {
        bool const fForever = dwMilliseconds == INFINITE;
        std::int64_t const nDeadline = NowMilliseconds() + dwMilliseconds;
        while (!HasEnded()) {
            std::int64_t const nLeft = fForever ? INT_MAX : nDeadline - NowMilliseconds();
            if (nLeft <= 0) {
                return WAIT_TIMEOUT;
            }
            Doze(static_cast<int>(std::min<std::int64_t>(nLeft, INT_MAX)));
        }
        return WAIT_OBJECT_0;
    }

private:
    void Doze(int nMilliseconds)
    {
        pollfd poll = {m_fdProcess, POLLIN, 0};
        bool const fReady = m_fdProcess >= 0;
        ::poll(&poll, fReady ? 1 : 0,
               fReady ? nMilliseconds : std::min(nMilliseconds, knPollSlice));
    }

    // Whether it has ended; takes its exit code the first time.
    bool Look() PLAT_REQUIRES(m_mutex)
    {
        if (m_fEnded) {
            return true;
        }
        int nStatus = 0;
        pid_t const pid = ::waitpid(m_pid, &nStatus, WNOHANG);
        if (pid == 0 || (pid < 0 && errno == EINTR)) {
            return false;
        }
        m_fEnded = true;
        if (pid > 0 && WIFEXITED(nStatus)) {
            m_dwExitCode = static_cast<DWORD>(WEXITSTATUS(nStatus));
        } else if (pid > 0 && WIFSIGNALED(nStatus)) {
            bool const fOurs = m_fKilled && WTERMSIG(nStatus) == SIGKILL;
            m_dwExitCode =
                fOurs ? m_dwKillCode : kdwSignalBase + static_cast<DWORD>(WTERMSIG(nStatus));
        }
        return true;
    }

    pid_t const m_pid;
    int const m_fdProcess; // -1 if the kernel has none
    CPlatMutex m_mutex;    // a leaf
    bool m_fEnded PLAT_GUARDED_BY(m_mutex) = false;
    bool m_fKilled PLAT_GUARDED_BY(m_mutex) = false;
    DWORD m_dwKillCode PLAT_GUARDED_BY(m_mutex) = 0;
    // Stays so if the host waited for the child itself.
    DWORD m_dwExitCode PLAT_GUARDED_BY(m_mutex) = static_cast<DWORD>(-1);
};

class CProcessObject : public CHandleObject {
public:
    static constexpr EHandleKind kKind = eHK_PROCESS;
    explicit CProcessObject(std::shared_ptr<CChild> pChild) : m_pChild(std::move(pChild)) {}
    DWORD Wait(DWORD dwMilliseconds) override { return m_pChild->Wait(dwMilliseconds); }

    std::shared_ptr<CChild> const m_pChild;
};

// Takes a command line apart as the runtime of Windows does. The first argument knows quotes only. In
// the others 2n backslashes before a quote are n of them and a quote that opens or closes, 2n+1 are n
// and a quote as a letter; two quotes within quotes are one as a letter.
class CCommandLine {
public:
    explicit CCommandLine(char const *psz) : m_psz(psz)
    {
        m_astr.push_back(Program());
        for (SkipBlanks(); *m_psz != '\0'; SkipBlanks()) {
            m_astr.push_back(Argument());
        }
    }

    std::vector<std::string> m_astr;

private:
    bool IsBlank() const { return *m_psz == ' ' || *m_psz == '\t'; }
    void SkipBlanks()
    {
        while (IsBlank()) {
            ++m_psz;
        }
    }

    std::string Program()
    {
        std::string str;
        for (bool fQuoted = false; *m_psz != '\0' && (fQuoted || !IsBlank()); ++m_psz) {
            if (*m_psz == '"') {
                fQuoted = !fQuoted;
            } else {
                str += *m_psz;
            }
        }
        return str;
    }

    std::string Argument()
    {
        std::string str;
        for (bool fQuoted = false; *m_psz != '\0' && (fQuoted || !IsBlank());) {
            std::size_t cBackslashes = std::strspn(m_psz, "\\");
            m_psz += cBackslashes;
            if (*m_psz != '"') {
                str.append(cBackslashes, '\\');
                if (cBackslashes == 0) {
                    str += *m_psz++;
                }
                continue;
            }
            str.append(cBackslashes / 2, '\\');
            if (cBackslashes % 2 != 0) {
                str += '"';
            } else if (fQuoted && m_psz[1] == '"') {
                str += '"';
                ++m_psz;
            } else {
                fQuoted = !fQuoted;
            }
            ++m_psz;
        }
        return str;
    }

    char const *m_psz;
};

std::vector<char *> Pointers(std::vector<std::string> &astr)
{
    std::vector<char *> apsz;
    for (std::string &str : astr) {
        apsz.push_back(str.data());
    }
    apsz.push_back(nullptr);
    return apsz;
}

struct CStartRecord {
    std::string m_strProgram; // with a slash, or to be looked for on PATH
    std::vector<std::string> m_astrArguments;
    std::vector<std::string> m_astrEnvironment;
    std::string m_strDirectory; // empty: ours
    bool m_fNewGroup = false;
    bool m_fRedirect = false;
    int m_afd[3] = {-1, -1, -1}; // with m_fRedirect: 3 and above, or -1 for none
};

// The two records of posix_spawn.
class CSpawnRecords {
public:
    CSpawnRecords()
    {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawnattr_init(&m_attributes);
    }
    ~CSpawnRecords()
    {
        ::posix_spawn_file_actions_destroy(&m_actions);
        ::posix_spawnattr_destroy(&m_attributes);
    }
    CSpawnRecords(CSpawnRecords const &) = delete;
    CSpawnRecords &operator=(CSpawnRecords const &) = delete;

    int Fill(CStartRecord const &start)
    {
        int nError = 0;
        for (int i = 0; start.m_fRedirect && i < 3 && nError == 0; ++i) {
            nError =
                start.m_afd[i] >= 0
                    ? ::posix_spawn_file_actions_adddup2(&m_actions, start.m_afd[i], i)
                    : ::posix_spawn_file_actions_addopen(&m_actions, i, "/dev/null", O_RDWR, 0);
        }
        if (nError == 0) {
            nError = ::posix_spawn_file_actions_addclosefrom_np(&m_actions, 3);
        }
        if (nError == 0 && !start.m_strDirectory.empty()) {
            nError =
                ::posix_spawn_file_actions_addchdir_np(&m_actions, start.m_strDirectory.c_str());
        }
        short const fwGroup = start.m_fNewGroup ? POSIX_SPAWN_SETPGROUP : 0;
        ::posix_spawnattr_setflags(
            &m_attributes,
            static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | fwGroup));
        sigset_t set;
        sigfillset(&set);
        ::posix_spawnattr_setsigdefault(&m_attributes, &set);
        sigemptyset(&set);
        ::posix_spawnattr_setsigmask(&m_attributes, &set);
        return nError;
    }

    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

DWORD Spawn(CStartRecord &start, std::shared_ptr<CChild> &pChild, pid_t *ppid)
{
    Orphans().Sweep();
    CSpawnRecords records;
    int nError = records.Fill(start);
    if (nError == 0) {
        std::vector<char *> apszArguments = Pointers(start.m_astrArguments);
        std::vector<char *> apszEnvironment = Pointers(start.m_astrEnvironment);
        bool const fPath = start.m_strProgram.find('/') == std::string::npos;
        nError = (fPath ? ::posix_spawnp : ::posix_spawn)(
            ppid, start.m_strProgram.c_str(), &records.m_actions, &records.m_attributes,
            apszArguments.data(), apszEnvironment.data());
    }
    if (nError != 0) {
        return nError == ENOENT ? PlatNotFoundError(start.m_strProgram.c_str())
                                : PlatErrorFromErrno(nError);
    }
    pChild = std::make_shared<CChild>(*ppid);
    return ERROR_SUCCESS;
}

std::vector<std::string> OwnEnvironment()
{
    std::vector<std::string> astr;
    for (char **ppsz = environ; ppsz != nullptr && *ppsz != nullptr; ++ppsz) {
        astr.emplace_back(*ppsz);
    }
    return astr;
}

// A block of texts, one behind the other, with an empty one at the end.
std::vector<std::string> EnvironmentOfBlock(void const *pEnvironment)
{
    if (pEnvironment == nullptr) {
        return OwnEnvironment();
    }
    std::vector<std::string> astr;
    for (auto psz = static_cast<char const *>(pEnvironment); *psz != '\0';
         psz += std::strlen(psz) + 1) {
        astr.emplace_back(psz);
    }
    return astr;
}

// The descriptors for a child's standard streams: copies above the three, so that none of them is
// overwritten before it has been passed on.
class CStandardStreams {
public:
    ~CStandardStreams()
    {
        for (int const fd : m_afd) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    DWORD Take(STARTUPINFOA const &startup)
    {
        HANDLE const ahStreams[] = {startup.hStdInput, startup.hStdOutput, startup.hStdError};
        for (int i = 0; i < 3; ++i) {
            if (ahStreams[i] == nullptr) {
                continue;
            }
            CHandleRef<CFileObject> const file(ahStreams[i]);
            if (!file || !file->m_fInherit) {
                return ERROR_INVALID_HANDLE;
            }
            m_afd[i] = ::fcntl(file->m_fd, F_DUPFD_CLOEXEC, 3);
            if (m_afd[i] < 0) {
                return PlatErrorFromErrno(errno);
            }
        }
        return ERROR_SUCCESS;
    }

    int m_afd[3] = {-1, -1, -1};
};

// The child changes its folder before it runs the program, whose name counts from ours.
std::string AbsoluteProgram(std::string const &strProgram)
{
    if (strProgram.empty() || strProgram[0] == '/') {
        return strProgram;
    }
    std::unique_ptr<char, decltype(&std::free)> const pszFolder(::getcwd(nullptr, 0), &std::free);
    return pszFolder ? std::string(pszFolder.get()) + "/" + strProgram : strProgram;
}

DWORD FillStart(char const *pszProgram, char const *pszCommandLine, DWORD dwFlags,
                void const *pEnvironment, char const *pszDirectory, CStartRecord &start)
{
    if (pszProgram == nullptr && (pszCommandLine == nullptr || *pszCommandLine == '\0')) {
        return ERROR_INVALID_PARAMETER;
    }
    if (pszDirectory != nullptr) {
        struct stat st;
        if (::stat(pszDirectory, &st) != 0 || !S_ISDIR(st.st_mode)) {
            return ERROR_DIRECTORY;
        }
        start.m_strDirectory = pszDirectory;
    }
    if (pszCommandLine != nullptr && *pszCommandLine != '\0') {
        start.m_astrArguments = CCommandLine(pszCommandLine).m_astr;
    } else {
        start.m_astrArguments.emplace_back(pszProgram);
    }
    std::string const &strFirst = start.m_astrArguments.front();
    if (pszProgram != nullptr) {
        start.m_strProgram = AbsoluteProgram(pszProgram);
    } else {
        bool const fPath = strFirst.find('/') == std::string::npos;
        start.m_strProgram = fPath ? strFirst : AbsoluteProgram(strFirst);
    }
    if (start.m_strProgram.empty()) {
        return ERROR_PATH_NOT_FOUND;
    }
    start.m_astrEnvironment = EnvironmentOfBlock(pEnvironment);
    start.m_fNewGroup = (dwFlags & CREATE_NEW_PROCESS_GROUP) != 0;
    return ERROR_SUCCESS;
}

HANDLE CreateChildHandle(std::shared_ptr<CChild> const &pChild)
{
    return PlatHandleCreate(std::make_unique<CProcessObject>(pChild));
}

DWORD StartProcess(CStartRecord &start, STARTUPINFOA const &startup, PROCESS_INFORMATION *pInfo)
{
    CStandardStreams streams;
    start.m_fRedirect = (startup.dwFlags & STARTF_USESTDHANDLES) != 0;
    DWORD dwError = start.m_fRedirect ? streams.Take(startup) : ERROR_SUCCESS;
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    std::copy(std::begin(streams.m_afd), std::end(streams.m_afd), start.m_afd);
    std::shared_ptr<CChild> pChild;
    pid_t pid = 0;
    dwError = Spawn(start, pChild, &pid);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    PROCESS_INFORMATION info = {CreateChildHandle(pChild), CreateChildHandle(pChild),
                                static_cast<DWORD>(pid), static_cast<DWORD>(pid)};
    if (info.hProcess == nullptr || info.hThread == nullptr) {
        // A process that nobody could wait for or end must not run.
        pChild->Kill(ERROR_NO_SYSTEM_RESOURCES);
        CloseHandle(info.hProcess != nullptr ? info.hProcess : INVALID_HANDLE_VALUE);
        return ERROR_NO_SYSTEM_RESOURCES;
    }
    *pInfo = info;
    return ERROR_SUCCESS;
}

bool IsEnvironmentName(char const *psz)
{
    if (psz == nullptr || *psz == '\0' || (*psz >= '0' && *psz <= '9')) {
        return false;
    }
    return std::strspn(psz, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
           std::strlen(psz);
}

void SetVariable(std::vector<std::string> &astrEnvironment, PlatEnvType const &variable)
{
    std::string const strStart = std::string(variable.pszName) + "=";
    std::erase_if(astrEnvironment,
                  [&](std::string const &str) { return str.starts_with(strStart); });
    astrEnvironment.push_back(strStart + variable.pszValue);
}

// Want of memory as an error number: no exception leaves the layer.
template <class F>
DWORD WithMemory(F fn)
{
    try {
        return fn();
    } catch (std::bad_alloc const &) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

// In a group of its own, with our standard error for what it prints.
DWORD SpawnCommand(CStartRecord &start, CStandardStreams &streams, std::shared_ptr<CChild> &pChild,
                   pid_t *ppid)
{
    start.m_fNewGroup = true;
    streams.m_afd[1] = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3); // -1 if it is closed: none
    streams.m_afd[2] = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    start.m_fRedirect = true;
    std::copy(std::begin(streams.m_afd), std::end(streams.m_afd), start.m_afd);
    return Spawn(start, pChild, ppid);
}

DWORD StartShell(char const *pszCommand, std::vector<PlatEnvType> const &aVariables,
                 std::shared_ptr<CChild> &pChild, pid_t *ppid)
{
    CStartRecord start;
    start.m_strProgram = "/bin/sh";
    start.m_astrArguments = {"sh", "-c", pszCommand};
    start.m_astrEnvironment = OwnEnvironment();
    for (PlatEnvType const &variable : aVariables) {
        SetVariable(start.m_astrEnvironment, variable);
    }
    CStandardStreams streams;
    return SpawnCommand(start, streams, pChild, ppid);
}

// The input is a file in memory: it is whole before the program begins, and nobody has to feed it.
DWORD StartArguments(std::vector<std::string> astrArguments, void const *pInput,
                     std::size_t cbInput, std::shared_ptr<CChild> &pChild, pid_t *ppid)
{
    CStartRecord start;
    start.m_strProgram = astrArguments.front();
    start.m_astrArguments = std::move(astrArguments);
    start.m_astrEnvironment = OwnEnvironment();
    CStandardStreams streams;
    int const fd = ::memfd_create("input", MFD_CLOEXEC);
    if (fd < 0) {
        return PlatErrorFromErrno(errno);
    }
    ssize_t const cbWritten = ::pwrite(fd, pInput, cbInput, 0); // its place stays at the beginning
    streams.m_afd[0] = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int const nError = errno;
    ::close(fd);
    if (cbWritten != static_cast<ssize_t>(cbInput) || streams.m_afd[0] < 0) {
        return cbWritten >= 0 && streams.m_afd[0] >= 0 ? ERROR_NOT_ENOUGH_MEMORY
                                                       : PlatErrorFromErrno(nError);
    }
    return SpawnCommand(start, streams, pChild, ppid);
}

std::atomic<bool> g_fDebugOutput{false};

} // namespace

BOOL CreateProcessA(char const *pszProgram, char *pszCommandLine,
                    SECURITY_ATTRIBUTES *pProcessSecurity, SECURITY_ATTRIBUTES *pThreadSecurity,
                    BOOL fInherit, DWORD dwFlags, void *pEnvironment, char const *pszDirectory,
                    STARTUPINFOA *pStartup, PROCESS_INFORMATION *pInfo)
{
    bool const fKnown = pProcessSecurity == nullptr && pThreadSecurity == nullptr &&
                        (dwFlags & ~CREATE_NEW_PROCESS_GROUP) == 0 && pStartup != nullptr &&
                        pInfo != nullptr && pStartup->cb == sizeof(STARTUPINFOA) &&
                        (pStartup->dwFlags & ~STARTF_USESTDHANDLES) == 0 &&
                        (pStartup->dwFlags == 0 || fInherit);
    if (!fKnown) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    CStartRecord start;
    DWORD dwError =
        FillStart(pszProgram, pszCommandLine, dwFlags, pEnvironment, pszDirectory, start);
    if (dwError == ERROR_SUCCESS) {
        dwError = StartProcess(start, *pStartup, pInfo);
    }
    return dwError == ERROR_SUCCESS ? TRUE : (SetLastError(dwError), FALSE);
}

BOOL GetExitCodeProcess(HANDLE hProcess, DWORD *pdwExitCode)
{
    CHandleRef<CProcessObject> const process(hProcess);
    if (!process) {
        return FALSE;
    }
    if (pdwExitCode == nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    *pdwExitCode = process->m_pChild->ExitCode();
    return TRUE;
}

BOOL TerminateProcess(HANDLE hProcess, UINT nExitCode)
{
    CHandleRef<CProcessObject> const process(hProcess);
    if (!process) {
        return FALSE;
    }
    return process->m_pChild->Kill(nExitCode) ? TRUE : (SetLastError(ERROR_ACCESS_DENIED), FALSE);
}

DWORD GetCurrentProcessId()
{
    return static_cast<DWORD>(::getpid());
}

BOOL GenerateConsoleCtrlEvent(DWORD dwCtrlEvent, DWORD dwProcessGroupId)
{
    bool const fKnown = dwCtrlEvent == CTRL_C_EVENT || dwCtrlEvent == CTRL_BREAK_EVENT;
    // 1 would mean all processes that there are.
    if (!fKnown || dwProcessGroupId == 1 || dwProcessGroupId > INT_MAX) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    int const nSignal = dwCtrlEvent == CTRL_C_EVENT ? SIGINT : SIGHUP;
    if (::kill(-static_cast<pid_t>(dwProcessGroupId), nSignal) == 0) {
        return TRUE;
    }
    SetLastError(errno == ESRCH ? ERROR_INVALID_PARAMETER : PlatErrorFromErrno(errno));
    return FALSE;
}

BOOL CreatePipe(HANDLE *phRead, HANDLE *phWrite, SECURITY_ATTRIBUTES *pSecurity, DWORD)
{
    if (phRead == nullptr || phWrite == nullptr || pSecurity != nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    int afd[2];
    if (::pipe2(afd, O_CLOEXEC) != 0) {
        return PlatFailErrno(), FALSE;
    }
    auto const makeEnd = [](int fd, DWORD dwAccess) {
        auto pEnd = std::unique_ptr<CFileObject>(new (std::nothrow) CFileObject(
            fd, dwAccess, CFileObject::eFT_PIPE, /*fOwned=*/true, /*fInherit=*/false));
        if (!pEnd) {
            ::close(fd);
        }
        return PlatHandleCreate(std::move(pEnd));
    };
    HANDLE const hRead = makeEnd(afd[0], GENERIC_READ);
    HANDLE const hWrite = makeEnd(afd[1], GENERIC_WRITE);
    if (hRead == nullptr || hWrite == nullptr) {
        CloseHandle(hRead != nullptr ? hRead : INVALID_HANDLE_VALUE);
        return SetLastError(ERROR_NO_SYSTEM_RESOURCES), FALSE;
    }
    *phRead = hRead;
    *phWrite = hWrite;
    return TRUE;
}

HANDLE GetStdHandle(DWORD dwWhich)
{
    static CPlatMutex s_mutex; // a leaf
    static HANDLE s_ahStreams[3] PLAT_GUARDED_BY(s_mutex);
    if (dwWhich < STD_ERROR_HANDLE || dwWhich > STD_INPUT_HANDLE) {
        return SetLastError(ERROR_INVALID_HANDLE), INVALID_HANDLE_VALUE;
    }
    int const fd = static_cast<int>(STD_INPUT_HANDLE - dwWhich);
    CPlatGuard const lock(s_mutex);
    if (s_ahStreams[fd] == nullptr) {
        s_ahStreams[fd] = PlatHandleCreate(std::make_unique<CFileObject>(
            fd, fd == 0 ? GENERIC_READ : GENERIC_WRITE, CFileObject::eFT_DEVICE,
            /*fOwned=*/false, /*fInherit=*/true));
    }
    return s_ahStreams[fd];
}

DWORD GetModuleFileNameA(HMODULE hModule, char *pszBuffer, DWORD cch)
{
    if (hModule != nullptr) {
        return SetLastError(ERROR_MOD_NOT_FOUND), 0;
    }
    char szPath[PATH_MAX];
    ssize_t const cchLink = ::readlink("/proc/self/exe", szPath, sizeof szPath);
    if (cchLink < 0) {
        return PlatFailErrno(), 0;
    }
    if (pszBuffer == nullptr || cch == 0) {
        return SetLastError(ERROR_INSUFFICIENT_BUFFER), 0;
    }
    std::string_view strPath(szPath, static_cast<std::size_t>(cchLink));
    constexpr std::string_view kstrGone =
        " (deleted)"; // what the kernel adds for a replaced program
    if (strPath.ends_with(kstrGone)) {
        strPath.remove_suffix(kstrGone.size());
    }
    std::size_t const cchCopied = std::min<std::size_t>(strPath.size(), cch - 1);
    std::memcpy(pszBuffer, strPath.data(), cchCopied);
    pszBuffer[cchCopied] = '\0';
    if (cchCopied < strPath.size()) {
        return SetLastError(ERROR_INSUFFICIENT_BUFFER), cch;
    }
    return static_cast<DWORD>(cchCopied);
}

void OutputDebugStringA(char const *pszText)
{
    if (pszText == nullptr || !g_fDebugOutput) {
        return;
    }
    int const nErrno = errno;
    (void)PlatWriteAll(STDERR_FILENO, pszText, std::strlen(pszText));
    errno = nErrno;
}

void PlatSetDebugOutput(bool fOn)
{
    g_fDebugOutput = fOn;
}

class CPlatCommandImpl {
public:
    std::shared_ptr<CChild> m_pChild; // null before the start
    pid_t m_pid = 0;                  // of the shell and its group
};

CPlatCommand::CPlatCommand() : m_pImpl(std::make_unique<CPlatCommandImpl>()) {}
CPlatCommand::~CPlatCommand() = default;

BOOL CPlatCommand::Start(char const *pszCommand, PlatEnvType const *pVariables,
                         std::size_t cVariables)
{
    bool fKnown = pszCommand != nullptr && (pVariables != nullptr || cVariables == 0) &&
                  m_pImpl->m_pChild == nullptr;
    for (std::size_t i = 0; fKnown && i < cVariables; ++i) {
        fKnown = IsEnvironmentName(pVariables[i].pszName) && pVariables[i].pszValue != nullptr;
    }
    if (!fKnown) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    DWORD const dwError = WithMemory([&] {
        return StartShell(pszCommand, {pVariables, pVariables + cVariables}, m_pImpl->m_pChild,
                          &m_pImpl->m_pid);
    });
    return SetLastError(dwError), dwError == ERROR_SUCCESS;
}

BOOL CPlatCommand::StartProgram(char const *const *ppszArguments, std::size_t cArguments,
                                void const *pInput, std::size_t cbInput)
{
    if (ppszArguments == nullptr || cArguments == 0 || *ppszArguments[0] == '\0' ||
        (pInput == nullptr && cbInput > 0) || m_pImpl->m_pChild != nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    DWORD const dwError = WithMemory([&] {
        return StartArguments({ppszArguments, ppszArguments + cArguments}, pInput, cbInput,
                              m_pImpl->m_pChild, &m_pImpl->m_pid);
    });
    return SetLastError(dwError), dwError == ERROR_SUCCESS;
}

BOOL CPlatCommand::Wait(DWORD dwMilliseconds, DWORD *pdwExitCode)
{
    CChild &child = *m_pImpl->m_pChild;
    if (child.Wait(dwMilliseconds) != WAIT_OBJECT_0) {
        return FALSE;
    }
    *pdwExitCode = child.ExitCode();
    return TRUE;
}

void CPlatCommand::End(DWORD dwMilliseconds)
{
    pid_t const pid = m_pImpl->m_pid;
    // The number is the group's as long as any of its processes lives, the shell or another one; the shell
    // counts until somebody has looked at its end.
    auto const fnIsGone = [&] {
        return m_pImpl->m_pChild->HasEnded() && ::kill(-pid, 0) != 0 && errno == ESRCH;
    };
    auto const fnGoesWithin = [&](std::int64_t nMilliseconds) {
        std::int64_t const nDeadline = NowMilliseconds() + nMilliseconds;
        while (!fnIsGone() && NowMilliseconds() < nDeadline) {
            ::poll(nullptr, 0, knPollSlice); // there is no event for the end of a group
        }
        return fnIsGone();
    };
    ::kill(-pid, SIGTERM);
    ::kill(-pid, SIGCONT); // one that is stopped hears nothing else
    if (!fnGoesWithin(dwMilliseconds)) {
        ::kill(-pid, SIGKILL);
        fnGoesWithin(knKillTime);
    }
}
