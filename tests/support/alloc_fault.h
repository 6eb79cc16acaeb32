// Lets an allocation of the test program fail. alloc_fault.cpp replaces the global operator new and
// operator delete; they go to malloc and free, so the sanitizers still see every block.
//
// Only operator new is touched: malloc, and so the texts of the C runtime, never fail.

#pragma once

#include <cstddef>

class CAllocFault {
public:
    enum EScope { eThisThread, eAllThreads };

    // The allocation number nFail from here on, counted from 1 in the given scope, fails: null from the
    // nothrow form, std::bad_alloc from the other. The others succeed. One object at a time.
    explicit CAllocFault(std::size_t nFail, EScope eScope = eThisThread);
    ~CAllocFault(); // nothing fails any more
    CAllocFault(CAllocFault const &) = delete;
    CAllocFault &operator=(CAllocFault const &) = delete;

    // Whether that allocation has come; false without an object.
    static bool HasFired();
};

// Runs fnStory with its first allocation failing, then its second, and so on, until a run needs no more.
// Returns the number of runs that met their fault. The story makes no assertion that allocates.
template <class Story>
std::size_t FailEachAllocation(Story fnStory, CAllocFault::EScope eScope = CAllocFault::eThisThread)
{
    for (std::size_t nFail = 1;; ++nFail) {
        CAllocFault fault(nFail, eScope);
        fnStory();
        if (!fault.HasFired()) {
            return nFail - 1;
        }
    }
}
