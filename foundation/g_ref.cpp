#include "foundation/g_ref.h"

#include "platform/check.h"

CGReference::CGReference()
{
    Init(/*fReport=*/1, nullptr);
}

CGReference::CGReference(char const *pszName)
{
    Init(/*fReport=*/1, pszName);
}

CGReference::CGReference(DWORD fReport)
{
    Init(fReport, nullptr);
}

CGReference::CGReference(DWORD fReport, char const *pszName)
{
    Init(fReport, pszName);
}

CGReference::~CGReference()
{
    // Not the last Release but the end of a block or of an owner: the constructor's reference is
    // given up here, so that the count ends at 0 on either road.
    if (m_fDestroying == 0) {
        InterlockedDecrement(&m_cRef);
    }
}

void CGReference::Init(DWORD fReport, char const *pszName)
{
    m_fReport = fReport;
    m_strObjectName.Set(pszName != nullptr ? pszName : "Object Name not given in constructor");
    if (m_fReport != 0) {
        G_REPORT(eEB_ENTRY, eEC_OBJECT, eEL_TRACE, "CGReference::Init: Creating object \"%s\"",
                 GTextOf(m_strObjectName.m_pszText));
    }
    m_cRef = 0;
    m_fDestroying = 0;
    AddRef();
}

// Both give the count as the step itself left it. To read it again would touch an object that another
// thread may have released in between.
LONG CGReference::AddRef()
{
    return InterlockedIncrement(&m_cRef);
}

LONG CGReference::Release()
{
    LONG const cRef = InterlockedDecrement(&m_cRef);
    PLAT_CHECK(cRef >= 0);
    if (cRef != 0) {
        return cRef;
    }
    m_fDestroying = 1;
    std::uint64_t const fMask = HasReportFlag(0) ? eEC_NONE : eEC_OBJECT;
    if (m_fReport != 0) {
        G_REPORT(eEB_ENTRY, fMask, eEL_TRACE, "CGReference::Release: Removing object \"%s\"",
                 GTextOf(m_strObjectName.m_pszText));
    }
    DEC_OBJECT_COUNTER(fMask, m_strObjectName.m_pszText);
    delete this;
    return 0;
}
