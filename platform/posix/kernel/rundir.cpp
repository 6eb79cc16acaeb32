#include "platform/posix/kernel/rundir.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kcbMaxFileName = 200;

bool IsOurs(char const *pszDir)
{
    struct stat st;
    return lstat(pszDir, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
           (st.st_mode & 077) == 0;
}

bool IsPlain(unsigned char ch)
{
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
           ch == '-' || ch == '_' || ch == '.';
}

std::uint64_t Fnv1a(char const *pszText)
{
    std::uint64_t nHash = 0xCBF29CE484222325u;
    for (; *pszText; ++pszText) {
        nHash = (nHash ^ static_cast<unsigned char>(*pszText)) * 0x100000001B3u;
    }
    return nHash;
}

} // namespace

bool PlatRunDirAt(unsigned nPlace, bool fMake, RunDirText &szDir)
{
    // Memory first: it is empty after a restart, and nothing sweeps it while we run as old files are
    // swept from /tmp. A stranger who takes the name before us only pushes us to the next place, and
    // once the directory is ours the sticky bit keeps it so.
    constexpr char const *kapszBase[kcRunDirs] = {"/dev/shm", "/tmp"};
    std::snprintf(szDir, sizeof szDir, "%s/qoma-%lu", kapszBase[nPlace],
                  static_cast<unsigned long>(geteuid()));
    // What somebody made meanwhile is looked at like what was there before.
    return IsOurs(szDir) || (fMake && (mkdir(szDir, 0700), IsOurs(szDir)));
}

DWORD PlatRunDir(std::string &strDir)
{
    for (unsigned n = 0; n < kcRunDirs; ++n) {
        RunDirText szDir;
        if (PlatRunDirAt(n, /*fMake=*/true, szDir)) {
            strDir = szDir;
            return NO_ERROR;
        }
    }
    return ERROR_ACCESS_DENIED;
}

std::string PlatFileNameFor(char const *pszText)
{
    std::string strName;
    char szPart[20];
    for (char const *psz = pszText; *psz; ++psz) {
        auto const ch = static_cast<unsigned char>(*psz);
        bool const fPlain = IsPlain(ch) && !(ch == '.' && psz == pszText);
        std::snprintf(szPart, sizeof szPart, fPlain ? "%c" : "%%%02X", ch);
        strName += szPart;
    }
    if (strName.size() > kcbMaxFileName) {
        std::snprintf(szPart, sizeof szPart, "~%016llx",
                      static_cast<unsigned long long>(Fnv1a(pszText)));
        strName.replace(kcbMaxFileName - std::strlen(szPart), std::string::npos, szPart);
    }
    return strName;
}
