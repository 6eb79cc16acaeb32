// Files are the system's own, in a folder of the run's. What the processes of one user share lies below it, too, so
// that runs side by side share nothing; and a process that is killed loses its descriptors as a real one does.
#include "sim/world/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// Where the product keeps what its processes share, and where the run has it.
std::string Moved(char const *pszPath)
{
    for (char const *const pszBase : {"/dev/shm/qoma-", "/tmp/qoma-"}) {
        if (std::strncmp(pszPath, pszBase, std::strlen(pszBase)) == 0) {
            return g_world.Folder() + pszPath;
        }
    }
    return pszPath;
}

int KeepFile(int fd)
{
    if (fd >= 0) {
        g_world.Process(t_pSimThread->nProcess).files.push_back(fd);
    }
    return fd;
}

} // namespace

void MakeFileFolders(std::string const &strFolder)
{
    for (char const *const pszName : {"/dev", "/dev/shm", "/tmp"}) {
        REAL(mkdir)((strFolder + pszName).c_str(), 0700);
    }
}

void ForgetFile(int fd)
{
    std::erase(g_world.Process(t_pSimThread->nProcess).files, fd);
}

extern "C" {

int open(char const *pszPath, int fFlags, ...)
{
    va_list args;
    va_start(args, fFlags);
    mode_t const nMode = va_arg(args, mode_t);
    va_end(args);
    WORLD_CALL(open, pszPath, fFlags, nMode);
    return KeepFile(REAL(open)(Moved(pszPath).c_str(), fFlags, nMode));
}

int openat(int fdFolder, char const *pszPath, int fFlags, ...)
{
    va_list args;
    va_start(args, fFlags);
    mode_t const nMode = va_arg(args, mode_t);
    va_end(args);
    WORLD_CALL(openat, fdFolder, pszPath, fFlags, nMode);
    return REAL(openat)(fdFolder, Moved(pszPath).c_str(), fFlags, nMode);
}

DIR *opendir(char const *pszPath)
{
    WORLD_CALL(opendir, pszPath);
    return REAL(opendir)(Moved(pszPath).c_str());
}

int mkdir(char const *pszPath, mode_t nMode) noexcept
{
    WORLD_CALL(mkdir, pszPath, nMode);
    return REAL(mkdir)(Moved(pszPath).c_str(), nMode);
}

int stat(char const *pszPath, struct stat *pStat) noexcept
{
    WORLD_CALL(stat, pszPath, pStat);
    return REAL(stat)(Moved(pszPath).c_str(), pStat);
}

int lstat(char const *pszPath, struct stat *pStat) noexcept
{
    WORLD_CALL(lstat, pszPath, pStat);
    return REAL(lstat)(Moved(pszPath).c_str(), pStat);
}

int unlink(char const *pszPath) noexcept
{
    WORLD_CALL(unlink, pszPath);
    return REAL(unlink)(Moved(pszPath).c_str());
}

int link(char const *pszFrom, char const *pszTo) noexcept
{
    WORLD_CALL(link, pszFrom, pszTo);
    return REAL(link)(Moved(pszFrom).c_str(), Moved(pszTo).c_str());
}

int ftruncate(int fd, off_t cb) noexcept
{
    WORLD_CALL(ftruncate, fd, cb);
    return REAL(ftruncate)(fd, cb);
}

// A lock that would wait must not stop the world with it.
int flock(int fd, int nOperation) noexcept
{
    WORLD_CALL(flock, fd, nOperation);
    for (;;) {
        int const n = REAL(flock)(fd, nOperation | LOCK_NB);
        if (n == 0 || errno != EWOULDBLOCK || (nOperation & LOCK_NB) != 0) {
            return n;
        }
        g_world.Block({eWT_TIME}, g_world.Now() + kSimMillisecond);
    }
}

ssize_t pwritev2(int fd, iovec const *pParts, int cParts, off_t nPlace, int fFlags)
{
    WORLD_CALL(pwritev2, fd, pParts, cParts, nPlace, fFlags);
    if (cParts == 1 && pParts->iov_len > 1 && g_world.Trouble(g_world.m_rates.nShort)) {
        iovec const part{pParts->iov_base, 1 + g_world.m_troubles.Below(pParts->iov_len - 1)};
        return REAL(pwritev2)(fd, &part, 1, nPlace,
                              fFlags); // the caller is to come back with the rest
    }
    return REAL(pwritev2)(fd, pParts, cParts, nPlace, fFlags);
}

} // extern "C"
