#include "platform/posix/files/share.h"

#include "platform/file.h"
#include "platform/lock.h"
#include "platform/posix/error.h"
#include "platform/posix/kernel/rundir.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A statement is a lock on a byte of an empty file in the user's run directory. Not of the file itself:
// whoever may read that can lock it too, and would keep its owner out. Each file has a row of bytes there.
// The locks belong to the descriptor that was opened for them, so the kernel drops them when a process is
// killed. They are read locks, any number of which agree; whether others have one is asked by way of a
// write lock.
enum EShareByte : int {
    eSB_GATE, // held by who looks and states, which makes a single step of it
    eSB_READS,
    eSB_WRITES,
    eSB_DENIES_READ,
    eSB_DENIES_WRITE,
};

constexpr int kcRowShift = 3; // bytes of a row, as a power of 2
constexpr int kcHashSpare =
    4; // so many bits too many for a row's number: a place in a file has 63 bits

// What belongs to a descriptor that has a statement.
struct ShareType {
    int fd;
    int fdLocks;
    ShareType *pNext;
};

constinit CPlatMutex g_shareLock; // a leaf
constinit ShareType *g_pFirstShare PLAT_GUARDED_BY(g_shareLock) = nullptr;

void AddShare(ShareType *pShare)
{
    CPlatGuard const guard(g_shareLock);
    pShare->pNext = g_pFirstShare;
    g_pFirstShare = pShare;
}

ShareType *RemoveShare(int fd)
{
    CPlatGuard const guard(g_shareLock);
    ShareType **ppLink = &g_pFirstShare;
    while (*ppLink != nullptr && (*ppLink)->fd != fd) {
        ppLink = &(*ppLink)->pNext;
    }
    ShareType *const pShare = *ppLink;
    if (pShare != nullptr) {
        *ppLink = pShare->pNext;
    }
    return pShare;
}

// The file of statements, opened for one of them. -1 with errno, which is 0 if there is no place for it.
int OpenLocks()
{
    for (unsigned n = 0; n < kcRunDirs; ++n) {
        RunDirText szDir;
        if (!PlatRunDirAt(n, /*fMake=*/true, szDir)) {
            continue;
        }
        char szName[sizeof szDir + 8];
        std::snprintf(szName, sizeof szName, "%s/shares", szDir);
        int const fd = ::open(szName, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd >= 0 || errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
            return fd;
        }
    }
    errno = 0;
    return -1;
}

// Where a file's row begins. Two files that met in one would refuse each other's openers now and then;
// with 60 bits of a hash nobody will see that.
off_t RowOf(struct stat const &st)
{
    std::uint64_t n = std::uint64_t{st.st_ino} ^ std::uint64_t{st.st_dev} * 0x9E3779B97F4A7C15u;
    n = (n ^ n >> 30) * 0xBF58476D1CE4E5B9u;
    n = (n ^ n >> 27) * 0x94D049BB133111EBu;
    n ^= n >> 31;
    return static_cast<off_t>(n >> kcHashSpare << kcRowShift);
}

// One file's row.
class CShareRow {
public:
    CShareRow(int fdLocks, off_t nRow) : m_fdLocks(fdLocks), m_nRow(nRow) {}

    bool Set(EShareByte eByte, short nType) const
    {
        struct flock lock = LockOf(eByte, nType);
        return ::fcntl(m_fdLocks, F_OFD_SETLK, &lock) == 0;
    }

    bool IsStated(EShareByte eByte) const
    {
        struct flock lock = LockOf(eByte, F_WRLCK);
        return ::fcntl(m_fdLocks, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    }

    // Held by others for a few calls of the system, unless one was stopped in between.
    bool EnterGate() const
    {
        constexpr int kcTries = 1000; // of about 1 ms
        for (int i = 0; i < kcTries; ++i) {
            if (Set(eSB_GATE, F_WRLCK)) {
                return true;
            }
            timespec const ts = {0, 1'000'000};
            ::nanosleep(&ts, nullptr);
        }
        return false;
    }

    void LeaveGate() const { Set(eSB_GATE, F_UNLCK); }

private:
    struct flock LockOf(EShareByte eByte, short nType) const
    {
        struct flock lock = {};
        lock.l_type = nType;
        lock.l_whence = SEEK_SET;
        lock.l_start = m_nRow + eByte;
        lock.l_len = 1;
        return lock;
    }

    int const m_fdLocks;
    off_t const m_nRow;
};

DWORD StateIn(CShareRow const &row, DWORD dwAccess, DWORD dwShare)
{
    struct {
        bool fStated;
        EShareByte eByte;
        EShareByte eAgainst;
    } const aStatements[] = {
        {(dwAccess & GENERIC_READ) != 0, eSB_READS, eSB_DENIES_READ},
        {(dwAccess & GENERIC_WRITE) != 0, eSB_WRITES, eSB_DENIES_WRITE},
        {(dwShare & FILE_SHARE_READ) == 0, eSB_DENIES_READ, eSB_READS},
        {(dwShare & FILE_SHARE_WRITE) == 0, eSB_DENIES_WRITE, eSB_WRITES},
    };
    for (auto const &statement : aStatements) {
        if (statement.fStated && row.IsStated(statement.eAgainst)) {
            return ERROR_SHARING_VIOLATION;
        }
    }
    for (auto const &statement : aStatements) {
        if (statement.fStated && !row.Set(statement.eByte, F_RDLCK)) {
            return PlatErrorFromErrno(errno);
        }
    }
    return ERROR_SUCCESS;
}

} // namespace

DWORD PlatTakeShare(int fd, DWORD dwAccess, DWORD dwShare)
{
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        return PlatErrorFromErrno(errno);
    }
    int const fdLocks = OpenLocks();
    if (fdLocks < 0) {
        return PlatErrorFromErrno(errno);
    }
    auto *pShare = new (std::nothrow) ShareType{fd, fdLocks, nullptr};
    if (pShare == nullptr) {
        ::close(fdLocks);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    AddShare(pShare);
    CShareRow const row(fdLocks, RowOf(st));
    if (!row.EnterGate()) {
        return ERROR_SHARING_VIOLATION;
    }
    DWORD const dwError = StateIn(row, dwAccess, dwShare);
    row.LeaveGate();
    return dwError;
}

void PlatDropShare(int fd)
{
    ShareType *const pShare = RemoveShare(fd);
    if (pShare == nullptr) {
        return;
    }
    // By hand, and not by the close alone: a child that another thread is starting has a copy of the
    // descriptor until it runs its program, and would keep the locks as long.
    int const nErrno = errno;
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    (void)::fcntl(pShare->fdLocks, F_OFD_SETLK, &lock);
    ::close(pShare->fdLocks);
    delete pShare;
    errno = nErrno;
}
