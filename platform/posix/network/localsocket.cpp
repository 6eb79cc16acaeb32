#include "platform/localsocket.h"

#include "platform/posix/network/socketslot.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool MakeAddress(char const *pszPath, sockaddr_un *pAddress)
{
    *pAddress = {};
    pAddress->sun_family = AF_UNIX;
    std::size_t const cch = std::strlen(pszPath);
    if (cch == 0 || cch >= sizeof pAddress->sun_path) {
        return false;
    }
    std::memcpy(pAddress->sun_path, pszPath, cch);
    return true;
}

int Open()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int Connect(int fd, sockaddr_un const &address)
{
    return ::connect(fd, reinterpret_cast<sockaddr const *>(&address), sizeof address);
}

// A socket's file whose listener is gone.
bool IsLeftOver(char const *pszPath, sockaddr_un const &address)
{
    struct stat st;
    if (::lstat(pszPath, &st) != 0 || !S_ISSOCK(st.st_mode)) {
        return false;
    }
    int const fd = Open();
    bool const fRefused = Connect(fd, address) != 0 && errno == ECONNREFUSED;
    ::close(fd);
    return fRefused;
}

int Bind(int fd, sockaddr_un const &address)
{
    ::fchmod(fd, S_IRUSR | S_IWUSR); // which its file will have
    return ::bind(fd, reinterpret_cast<sockaddr const *>(&address), sizeof address);
}

bool Listen(int fd, char const *pszPath, sockaddr_un const &address)
{
    int nResult = Bind(fd, address);
    if (nResult != 0 && errno == EADDRINUSE) {
        bool const fLeftOver = IsLeftOver(pszPath, address);
        errno = EADDRINUSE;
        nResult = fLeftOver && ::unlink(pszPath) == 0 ? Bind(fd, address) : -1;
    }
    return nResult == 0 && ::listen(fd, SOMAXCONN) == 0;
}

// Takes fd over if it can be used.
SOCKET Give(int fd, bool fGood, bool fConnected)
{
    if (fGood) {
        return SocketOpenSlot(fd, SOCK_STREAM,
                              fConnected ? ESocketLink::eCONNECTED : ESocketLink::eNEVER);
    }
    bool const fNowhere = errno == ENOENT || errno == ENOTDIR;
    SocketFail(SocketErrorOf(!fNowhere ? errno : fConnected ? ECONNREFUSED : EADDRNOTAVAIL));
    ::close(fd);
    return INVALID_SOCKET;
}

} // namespace

SOCKET PlatListenLocal(char const *pszPath)
{
    sockaddr_un address;
    int const fd = Open();
    bool const fPath = MakeAddress(pszPath, &address);
    errno = EFAULT;
    return Give(fd, fPath && Listen(fd, pszPath, address), false);
}

SOCKET PlatConnectLocal(char const *pszPath)
{
    sockaddr_un address;
    int const fd = Open();
    bool const fPath = MakeAddress(pszPath, &address);
    errno = EFAULT;
    return Give(fd, fPath && Connect(fd, address) == 0, true);
}
