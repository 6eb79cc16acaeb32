/// @file
/// CGString, the foundation's counted string: one heap buffer from GMemAlloc and its size, so that every
/// string shows in g_cMemory and g_cbMemory.
///
/// The buffer is exactly as large as the text and its terminator: every Set and every Append is one
/// allocation and, for a string that had text, one release. Text is narrow and zero-terminated. A string
/// belongs to whoever holds it: no operation takes a lock.

#pragma once

#include "foundation/g_result.h"
#include "platform/base.h"

/// A text in tracked memory.
class CGString {
public:
    CGString() = default;
    ~CGString() { Clear(); }
    CGString(CGString const &) = delete;
    CGString &operator=(CGString const &) = delete;

    /// Replaces the text with a copy of pszText, which may lie in this very string. eGE_OK;
    /// eGE_NULL_ARGUMENT for null, which still stores the empty text; eGE_OUT_OF_MEMORY, with which
    /// the old text is lost and m_pszText is null.
    DWORD Set(char const *pszText);

    /// Adds a copy of pszText at the end. eGE_OK; eGE_NULL_ARGUMENT for null, which appends nothing
    /// and still allocates anew; eGE_OUT_OF_MEMORY, with which the string stays as it was. A string
    /// without text, which a Set that ran out of memory leaves behind, takes it as Set does.
    DWORD Append(char const *pszText);

    /// Replaces the buffer by an uninitialised one of cbSize bytes, the terminator included; 0 gives
    /// none. Whether it could be had is seen in m_pszText.
    void Alloc(DWORD cbSize);

    /// Releases the text. m_cbSize keeps its value: m_pszText alone tells whether there is text.
    void Clear();

    /// Characters without the terminator. Only for a string that has text: 0xFFFFFFFF for a new one.
    DWORD GetLength() const { return m_cbSize - 1; }

    /// Bytes with the terminator.
    DWORD GetSize() const { return m_cbSize; }

    char *m_pszText = nullptr; ///< for reading; null when the string has no text
    DWORD m_cbSize = 0;        ///< while there is text, the exact size given to GMemAlloc
};

/// Stores "CLASS[NAME]" in *pstr, the form in which reports name a record. A null name counts as empty.
/// What memory cannot be had for is left out.
void GStrComposite(CGString *pstr, char const *pszClass, char const *pszName);

/// Searches pszText for pszPattern without regard to case, aware of multi-byte characters. Returns a
/// pointer into pszText, which is not changed, or null if it is not found or memory ran out. A null
/// argument counts as empty.
char const *GStrFindNoCase(char const *pszText, char const *pszPattern);
