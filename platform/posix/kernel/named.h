#pragma once

/// @file
/// Mutexes and events that the processes of one user share by name.
///
/// Each is a page in a file of the user's run directory, mapped by all who have the object open. The
/// page is made ready aside and put in place by link(2), so that nobody sees half of one. Everyone who
/// has it open holds a shared flock on its file, which the kernel takes back from a killed process too:
/// whoever gets the exclusive one is alone with the file, and removes it. So a name is gone with its last
/// handle, and what a killed process left is not found again. A mutex is a robust one, which the kernel
/// passes on as abandoned when its owner is killed.
///
/// Where there is no room for a page it is made in the next of the user's run directories, and is looked for
/// in all. Two processes that make one name in the moment in which room comes or goes may miss each other.

#include "platform/lock.h"
#include "platform/posix/kernel/handle.h"
#include "platform/posix/kernel/owned.h"
#include <string>

struct CNamedPage;

/// One named object as this process has it open, however many handles there are.
class CNamedShared : public COwnedLock {
public:
    CNamedPage *m_pPage = nullptr;

    /// The object called pszName, made if fCreate and not there. In fSet: an event's initial state, or
    /// that a new mutex begins locked. dwError: 0, or why there is none.
    static CNamedShared *Acquire(char const *pszName, EHandleKind eKind, bool fCreate, bool fManual,
                                 bool fSet, bool &fExisted, DWORD &dwError);

    /// The end of a handle, of which Acquire gives the first: the last one in this process gives up the name,
    /// and removes the file if no other process has it open.
    void ReleaseHandle();

    /// A mutex's owner keeps the page by a reference, with or without a handle.
    void AddRef();
    void Release();

private:
    struct NewType; // what a new object is to be

    CNamedShared(std::string strPath, int fd, CNamedPage *pPage) PLAT_REQUIRES(s_lock);
    ~CNamedShared();

    static CNamedShared *Find(std::string const &strPath) PLAT_REQUIRES(s_lock);
    static CNamedShared *OpenAnywhere(std::string const &strFile, DWORD &dwError)
        PLAT_REQUIRES(s_lock);
    static CNamedShared *MakeAnywhere(std::string const &strFile, NewType const &what,
                                      DWORD &dwError) PLAT_REQUIRES(s_lock);
    // strPath goes over to the object on success, and stays as it was otherwise.
    static CNamedShared *OpenFile(std::string &strPath, DWORD &dwError) PLAT_REQUIRES(s_lock);
    static CNamedShared *MakeFile(std::string &strPath, NewType const &what, DWORD &dwError)
        PLAT_REQUIRES(s_lock);
    bool GiveUpName() PLAT_REQUIRES(s_lock);

    // Of the open objects, and of opening and closing as a whole, within this process. A leaf.
    static CPlatMutex s_lock;
    static CNamedShared *s_pFirst PLAT_GUARDED_BY(s_lock);

    std::string m_strPath;
    int m_fd; // of the file with the name; closed with the last handle
    unsigned m_cHandles PLAT_GUARDED_BY(s_lock) = 1;
    std::atomic<unsigned> m_cRefs{1}; // all handles together are one
    CNamedShared *m_pNextNamed PLAT_GUARDED_BY(s_lock);
};

/// A handle to a named object, with the rights that were asked for.
class CNamedHandle : public CHandleObject {
public:
    CNamedHandle(CNamedShared *pShared, DWORD dwAccess) : m_pShared(pShared), m_dwAccess(dwAccess)
    {
    }
    ~CNamedHandle() override { m_pShared->ReleaseHandle(); }

protected:
    /// Whether the handle has this right; ERROR_ACCESS_DENIED if not.
    bool Allows(DWORD dwRight) const;

    CNamedShared *const m_pShared;
    DWORD const m_dwAccess;
};

class CNamedMutex : public CNamedHandle {
public:
    static constexpr EHandleKind kKind = eHK_NAMED_MUTEX;
    using CNamedHandle::CNamedHandle;

    static HANDLE Create(char const *pszName, bool fInitialOwner);
    static HANDLE Open(char const *pszName, DWORD dwAccess);
    DWORD Wait(DWORD dwMilliseconds) override;
    BOOL Release();
};

class CNamedEvent : public CNamedHandle {
public:
    static constexpr EHandleKind kKind = eHK_NAMED_EVENT;
    using CNamedHandle::CNamedHandle;

    static HANDLE Create(char const *pszName, bool fManualReset, bool fInitialState);
    static HANDLE Open(char const *pszName, DWORD dwAccess);
    DWORD Wait(DWORD dwMilliseconds) override;
    BOOL Set();
    BOOL Reset();
};
