// Lets a platform call of the test program fail, of those in calls.txt and the start of a std::thread.

#pragma once

#include <cstddef>

// How many calls there are to fail; 0 where the linker cannot wrap them.
std::size_t CountOfCalls();
// The linker's name of a call, from 0.
char const *NameOfCall(std::size_t nCall);

class CCallFault {
public:
    // The use number nUse from here on, counted from 1 over all threads, of call nCall fails. One object at
    // a time.
    CCallFault(std::size_t nCall, unsigned nUse);
    ~CCallFault(); // nothing fails any more
    CCallFault(CCallFault const &) = delete;
    CCallFault &operator=(CCallFault const &) = delete;

    // Whether that use has come; false without an object.
    static bool HasFired();
};

// What this thread calls in the block neither fails nor counts: it is the test's own doing.
class CNoCallFaults {
public:
    CNoCallFaults();
    ~CNoCallFaults();
    CNoCallFaults(CNoCallFaults const &) = delete;
    CNoCallFaults &operator=(CNoCallFaults const &) = delete;
};
