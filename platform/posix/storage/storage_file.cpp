#include "platform/posix/storage/storage_file.h"

#include "platform/posix/error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kcbReserveStep = 1024 * 1024; // bytes

// Structured storage has Win32's low error numbers under its own roof.
HRESULT StorageError(DWORD dwError)
{
    switch (dwError) {
    case ERROR_SUCCESS:
        return S_OK;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_FILE_EXISTS:
    case ERROR_DISK_FULL:
        return static_cast<HRESULT>(0x80030000u | dwError);
    case ERROR_WRITE_PROTECT:
    case ERROR_CANT_RESOLVE_FILENAME:
        return STG_E_ACCESSDENIED;
    case ERROR_FILENAME_EXCED_RANGE:
        return STG_E_INVALIDNAME;
    default:
        return STG_E_WRITEFAULT;
    }
}

// The real place of a file that exists, so that a link keeps pointing to what we replace.
std::string ResolvedName(std::string const &strName)
{
    std::unique_ptr<char, decltype(&std::free)> const psz(::realpath(strName.c_str(), nullptr),
                                                          &std::free);
    return psz ? psz.get() : strName;
}

} // namespace

HRESULT CStorageFile::Open(std::string const &strName, DWORD dwAccess, DWORD dwDisposition)
{
    // Whoever had the file before us may have put another one in its place between our open and our
    // taking of the share mode; then that one is the file.
    constexpr int kcTries = 100;
    for (int i = 0; i < kcTries; ++i) {
        DWORD const dwError = PlatOpenFile(strName.c_str(), dwAccess, /*dwShare=*/0, dwDisposition,
                                           0, 0666, &m_target);
        if (dwError != ERROR_SUCCESS) {
            return StorageError(dwError);
        }
        if (!m_target.m_fDisk) {
            return STG_E_ACCESSDENIED;
        }
        if (!OpenFolder(ResolvedName(strName))) {
            return STG_E_ACCESSDENIED;
        }
        if (PlatIsSameFile(m_target.m_fd, m_strName.c_str(), m_fdFolder.Get())) {
            m_fPlaceholder = !m_target.m_fExisted;
            return S_OK;
        }
        CloseTarget();
    }
    return STG_E_SHAREVIOLATION;
}

void CStorageFile::Close()
{
    DropAside();
    if (m_fPlaceholder && PlatIsSameFile(m_target.m_fd, m_strName.c_str(), m_fdFolder.Get())) {
        ::unlinkat(m_fdFolder.Get(), m_strName.c_str(), 0);
    }
    m_fPlaceholder = false;
    CloseTarget();
}

HRESULT CStorageFile::Reserve(std::uint64_t cb)
{
    HRESULT const hr = OpenAside();
    if (FAILED(hr) || cb <= m_cbReserved) {
        return hr;
    }
    std::uint64_t const cbAhead = (cb / kcbReserveStep + 1) * kcbReserveStep;
    return Allocate(cbAhead) || Allocate(cb) ? S_OK : STG_E_MEDIUMFULL;
}

HRESULT CStorageFile::Replace(CStorageNode const &root)
{
    HRESULT hr = OpenAside();
    if (SUCCEEDED(hr)) {
        hr = StorageSave(m_fdAside.Get(), root);
    }
    if (FAILED(hr)) {
        return hr;
    }
    // Not what another user, whom no share mode keeps out, may have put there.
    if (!PlatIsSameFile(m_fdAside.Get(), m_strAside.c_str(), m_fdFolder.Get()) ||
        ::renameat(m_fdFolder.Get(), m_strAside.c_str(), m_fdFolder.Get(), m_strName.c_str()) !=
            0) {
        return STG_E_ACCESSDENIED;
    }
    m_fdAside.Reset();
    m_fPlaceholder = false;
    return S_OK;
}

// strName is that of the open target.
bool CStorageFile::OpenFolder(std::string const &strName)
{
    std::size_t const nSlash = strName.find_last_of('/');
    std::size_t const nBase = nSlash == std::string::npos ? 0 : nSlash + 1;
    m_strName = strName.substr(nBase);
    std::string const strFolder = nBase == 0 ? "." : strName.substr(0, nBase);
    m_fdFolder.Reset(::open(strFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return m_fdFolder.IsOpen();
}

void CStorageFile::CloseTarget()
{
    m_fdFolder.Reset();
    if (m_target.m_fd >= 0) {
        PlatCloseFile(m_target.m_fd);
        m_target = {};
    }
}

HRESULT CStorageFile::OpenAside()
{
    if (m_fdAside.IsOpen()) {
        return S_OK;
    }
    struct stat st;
    if (::fstat(m_target.m_fd, &st) != 0) {
        return STG_E_ACCESSDENIED;
    }
    char szAside[40];
    std::snprintf(szAside, sizeof szAside, ".%llx.aside",
                  static_cast<unsigned long long>(st.st_ino));
    m_strAside = szAside;
    ::unlinkat(m_fdFolder.Get(), szAside, 0);
    m_fdAside.Reset(
        ::openat(m_fdFolder.Get(), szAside, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!m_fdAside.IsOpen()) {
        return StorageError(PlatErrorFromErrno(errno));
    }
    if (::fchmod(m_fdAside.Get(), st.st_mode & 07777) != 0) {
        DropAside();
        return STG_E_ACCESSDENIED;
    }
    return S_OK;
}

void CStorageFile::DropAside()
{
    if (!m_fdAside.IsOpen()) {
        return;
    }
    if (PlatIsSameFile(m_fdAside.Get(), m_strAside.c_str(), m_fdFolder.Get())) {
        ::unlinkat(m_fdFolder.Get(), m_strAside.c_str(), 0);
    }
    m_fdAside.Reset();
}

// Reserves behind the end, for the library counts from where the file ends. A file system that can't
// do that is asked how much room it has; what it does not tell (a quota) is found out at the end.
bool CStorageFile::Allocate(std::uint64_t cb)
{
    if (cb > PlatFileSizeLimit()) {
        return false;
    }
    int nResult;
    do {
        nResult = ::fallocate(m_fdAside.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(cb));
    } while (nResult != 0 && errno == EINTR);
    struct statvfs st;
    bool const fRoom =
        nResult == 0 || (errno == EOPNOTSUPP && ::fstatvfs(m_fdAside.Get(), &st) == 0 &&
                         cb <= std::uint64_t{st.f_bavail} * st.f_frsize);
    if (fRoom) {
        m_cbReserved = cb;
    }
    return fRoom;
}
