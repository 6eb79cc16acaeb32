#include "tests/support/alloc_fault.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> s_fArmed{false};
std::atomic<bool> s_fAllThreads{false};
std::atomic<bool> s_fFired{false};
std::atomic<std::size_t> s_cLeft{0}; // allocations to go until the fault
thread_local bool s_fThisThread = false;

bool MustFail()
{
    if (!s_fArmed || (!s_fAllThreads && !s_fThisThread)) {
        return false;
    }
    if (--s_cLeft != 0) {
        return false;
    }
    s_fArmed = false;
    s_fFired = true;
    return true;
}

void *Allocate(std::size_t cb) noexcept
{
    return MustFail() ? nullptr : std::malloc(cb != 0 ? cb : 1);
}

void *AllocateOrThrow(std::size_t cb)
{
    void *pBlock = Allocate(cb);
    if (pBlock == nullptr) {
        throw std::bad_alloc();
    }
    return pBlock;
}

} // namespace

CAllocFault::CAllocFault(std::size_t nFail, EScope eScope)
{
    s_cLeft = nFail;
    s_fFired = false;
    s_fThisThread = true;
    s_fAllThreads = eScope == eAllThreads;
    s_fArmed = true;
}

CAllocFault::~CAllocFault()
{
    s_fArmed = false;
    s_fFired = false;
    s_fThisThread = false;
}

bool CAllocFault::HasFired()
{
    return s_fFired;
}

void *operator new(std::size_t cb)
{
    return AllocateOrThrow(cb);
}

void *operator new[](std::size_t cb)
{
    return AllocateOrThrow(cb);
}

void *operator new(std::size_t cb, std::nothrow_t const &) noexcept
{
    return Allocate(cb);
}

void *operator new[](std::size_t cb, std::nothrow_t const &) noexcept
{
    return Allocate(cb);
}

void operator delete(void *pBlock) noexcept
{
    std::free(pBlock);
}

void operator delete[](void *pBlock) noexcept
{
    std::free(pBlock);
}

void operator delete(void *pBlock, std::size_t) noexcept
{
    std::free(pBlock);
}

void operator delete[](void *pBlock, std::size_t) noexcept
{
    std::free(pBlock);
}

void operator delete(void *pBlock, std::nothrow_t const &) noexcept
{
    std::free(pBlock);
}

void operator delete[](void *pBlock, std::nothrow_t const &) noexcept
{
    std::free(pBlock);
}
