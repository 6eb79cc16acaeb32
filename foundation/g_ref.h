/// @file
/// CGReference, the common base of the foundation's objects: a named object with a reference count that
/// removes itself when the last reference goes, and announces its creation and removal as events.
///
/// A new object has one reference, which belongs to whoever created it. A heap object dies by its last
/// Release, never by a plain delete. Its creator counts it with INC_OBJECT_COUNTER right after the
/// allocation; the last Release uncounts it. An object in automatic storage, or inside another, is never
/// counted and never goes through the last Release.

#pragma once

#include "foundation/g_os.h"
#include "foundation/g_string.h"

/// A named object that lives until its last reference goes.
class CGReference {
public:
    CGReference();                                   ///< reports, no name given
    explicit CGReference(char const *pszName);       ///< reports
    explicit CGReference(DWORD fReport);             ///< no name given
    CGReference(DWORD fReport, char const *pszName); ///< the text is copied
    virtual ~CGReference();
    CGReference(CGReference const &) = delete;
    CGReference &operator=(CGReference const &) = delete;

    /// Takes one reference. Any thread. The result is the count as this call left it: with several
    /// threads at work it is a snapshot.
    LONG AddRef();

    /// Gives up one reference. Any thread that holds one. Returns 0 when the object is gone, else the
    /// count as this call left it. After 0 the caller's pointer dangles and is cleared at once.
    LONG Release();

    /// 1 when m_fReport equals fValue, else 0.
    int HasReportFlag(DWORD fValue) const { return m_fReport == fValue ? 1 : 0; }

    CGString m_strObjectName; ///< the name in reports; without text if it could not be copied
    DWORD m_fReport;          ///< 0: the object is silent
    LONG m_cRef;              ///< moved only with InterlockedIncrement and InterlockedDecrement
    DWORD m_fDestroying;      ///< 1 from the last Release on

private:
    void Init(DWORD fReport, char const *pszName); // called once, by the constructors
};
