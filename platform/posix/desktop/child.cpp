#include "platform/posix/desktop/child.h"

#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/process.h"
#include "platform/sync.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr DWORD kdwSignalBase = 128; // as shells tell a process that a signal ended
constexpr int knPollSlice = 5;       // ms, where the kernel has no descriptors for processes

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

std::vector<char *> Pointers(std::vector<std::string> &astr)
{
    std::vector<char *> apsz;
    for (std::string &str : astr) {
        apsz.push_back(str.data());
    }
    apsz.push_back(nullptr);
    return apsz;
}

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
        int nError = start.m_fCommand ? AddStreams(start.m_fdInput) : 0;
        if (nError == 0) {
            nError = ::posix_spawn_file_actions_addclosefrom_np(&m_actions, 3);
        }
        int const fwGroup = start.m_fCommand ? POSIX_SPAWN_SETPGROUP : 0;
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

private:
    int AddStreams(int fdInput)
    {
        int const fdError = ::fcntl(STDERR_FILENO, F_GETFD) >= 0 ? STDERR_FILENO : -1;
        int const afd[] = {fdInput, fdError, fdError};
        int nError = 0;
        for (int i = 0; i < 3 && nError == 0; ++i) {
            nError = afd[i] >= 0 ? ::posix_spawn_file_actions_adddup2(&m_actions, afd[i], i)
                                 : ::posix_spawn_file_actions_addopen(&m_actions, i, "/dev/null",
                                                                      O_RDWR, 0);
        }
        return nError;
    }
};

} // namespace

std::int64_t NowMilliseconds()
{
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1'000'000;
}

std::vector<std::string> OwnEnvironment()
{
    std::vector<std::string> astr;
    for (char **ppsz = environ; ppsz != nullptr && *ppsz != nullptr; ++ppsz) {
        astr.emplace_back(*ppsz);
    }
    return astr;
}

CChild::CChild(pid_t pid)
    : m_pid(pid), m_fdProcess(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))
{
}

CChild::~CChild()
{
    if (!HasEnded()) {
        Orphans().Add(m_pid);
    }
}

DWORD CChild::ExitCode()
{
    CPlatGuard const lock(m_mutex);
    return Look() ? m_dwExitCode : STILL_ACTIVE;
}

bool CChild::HasEnded()
{
    CPlatGuard const lock(m_mutex);
    return Look();
}

DWORD CChild::Wait(DWORD dwMilliseconds)
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

void CChild::Doze(int nMilliseconds)
{
    pollfd poll = {m_fdProcess.Get(), POLLIN, 0};
    bool const fReady = m_fdProcess.IsOpen();
    ::poll(&poll, fReady ? 1 : 0, fReady ? nMilliseconds : std::min(nMilliseconds, knPollSlice));
}

// Takes its exit code the first time.
bool CChild::Look()
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
        m_dwExitCode = kdwSignalBase + static_cast<DWORD>(WTERMSIG(nStatus));
    }
    return true;
}

DWORD SpawnChild(CStartRecord &start, std::shared_ptr<CChild> &pChild)
{
    Orphans().Sweep();
    CSpawnRecords records;
    pid_t pid = 0;
    int nError = records.Fill(start);
    if (nError == 0) {
        nError = ::posix_spawnp(&pid, start.m_strProgram.c_str(), &records.m_actions,
                                &records.m_attributes, Pointers(start.m_astrArguments).data(),
                                Pointers(start.m_astrEnvironment).data());
    }
    if (nError != 0) {
        return nError == ENOENT ? PlatNotFoundError(start.m_strProgram.c_str())
                                : PlatErrorFromErrno(nError);
    }
    pChild = std::make_shared<CChild>(pid);
    return ERROR_SUCCESS;
}
