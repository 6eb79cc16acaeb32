#pragma once
/// @file
/// A list whose entries live on the stacks of threads, each for as long as that thread does something that
/// others have to know of. To make one costs no memory, so it cannot fail.
#include "platform/check.h"

/// Entry has a field `Entry *m_pNext`. The list is its owner's to lock.
template <class Entry>
class CStackList {
public:
    /// Puts an entry behind all others; it stays where it is until Remove.
    void Add(Entry &entry)
    {
        entry.m_pNext = nullptr;
        *PlaceOf(nullptr) = &entry;
    }

    /// Takes it out again.
    void Remove(Entry &entry) { *PlaceOf(&entry) = entry.m_pNext; }

    /// The first for which fnTest(Entry &) is true, in the order of Add, or null.
    template <class Test>
    Entry *Find(Test fnTest) const
    {
        Entry *pEntry = m_pFirst;
        while (pEntry != nullptr && !fnTest(*pEntry)) {
            pEntry = pEntry->m_pNext;
        }
        return pEntry;
    }

private:
    // What points to the entry, or, for null, to the end.
    Entry **PlaceOf(Entry const *pEntry)
    {
        Entry **ppEntry = &m_pFirst;
        while (*ppEntry != pEntry) {
            PLAT_CHECK(*ppEntry != nullptr); // who takes an entry out has put it in
            ppEntry = &(*ppEntry)->m_pNext;
        }
        return ppEntry;
    }

    Entry *m_pFirst = nullptr;
};
