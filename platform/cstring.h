#pragma once

/// @file
/// CString: a heap text of narrow characters, one pointer wide.
///
/// It is the text type of the records that clients of the module get, so it has to keep the width of
/// one pointer, and everything in it is inline: a client in another module uses its own copy of the
/// code, and no symbol of it is ever exported. Memory comes from `operator new[]` of the module that
/// instantiates it.
///
/// Copies are independent of their source. An operation that finds no memory raises
/// AfxThrowMemoryException and leaves the target as it was. A CString has no lock: one thread at a
/// time may change it, and nobody may read it meanwhile.

#include "platform/afx.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

/// The text of the records that clients get.
class CString {
public:
    CString() noexcept = default;
    CString(char const *psz) : m_psz(Duplicate(psz, Length(psz))) {} ///< null reads as ""
    /// The first cch bytes of pch, none of them zero.
    CString(char const *pch, std::size_t cch) : m_psz(Duplicate(pch, cch)) {}
    /// @{
    /// A copy; a move leaves the source empty and cannot fail.
    CString(CString const &str) : CString(str.m_psz) {}
    CString(CString &&str) noexcept : m_psz(std::exchange(str.m_psz, nullptr)) {}
    ~CString() { delete[] m_psz; }
    /// @}

    /// @{
    /// The same for a text that exists: the old one goes. psz may lie inside this very text; null empties it.
    CString &operator=(CString const &str) { return *this = str.m_psz; }
    CString &operator=(CString &&str) noexcept
    {
        if (this != &str) {
            Take(std::exchange(str.m_psz, nullptr));
        }
        return *this;
    }
    CString &operator=(char const *psz)
    {
        if (psz != m_psz || psz == nullptr) {
            Take(Duplicate(psz, Length(psz)));
        }
        return *this;
    }
    /// @}

    /// @{
    /// Appends; null, a zero and an empty text append nothing.
    CString &operator+=(CString const &str) { return Append(str.m_psz, Length(str.m_psz)); }
    CString &operator+=(char const *psz) { return Append(psz, Length(psz)); }
    CString &operator+=(char ch) { return Append(&ch, ch == '\0' ? 0 : 1); }
    /// @}

    /// Never null. The pointer is good until the next change of this object.
    operator char const *() const noexcept { return m_psz != nullptr ? m_psz : ""; }
    /// Whether there is no byte.
    bool IsEmpty() const noexcept { return m_psz == nullptr; }
    /// In bytes.
    int GetLength() const noexcept { return static_cast<int>(Length(m_psz)); }
    /// Gives the text up, and its memory.
    void Empty() noexcept { Take(nullptr); }

    /// @{
    /// Byte by byte; null reads as "".
    friend bool operator==(CString const &a, CString const &b) noexcept { return a == b.Text(); }
    friend bool operator==(CString const &a, char const *psz) noexcept
    {
        return std::strcmp(a.Text(), psz != nullptr ? psz : "") == 0;
    }
    /// @}

private:
    char const *Text() const noexcept { return *this; }

    static std::size_t Length(char const *psz) noexcept
    {
        return psz != nullptr ? std::strlen(psz) : 0;
    }

    static char *Allocate(std::size_t cch)
    {
        char *const psz = new (std::nothrow) char[cch + 1];
        if (psz == nullptr) {
            AfxThrowMemoryException();
        }
        psz[cch] = '\0';
        return psz;
    }

    // The empty text is the null pointer, so that an empty string costs no memory and cannot fail.
    static char *Duplicate(char const *pch, std::size_t cch)
    {
        if (cch == 0) {
            return nullptr;
        }
        char *const psz = Allocate(cch);
        std::memcpy(psz, pch, cch);
        return psz;
    }

    void Take(char *psz) noexcept { delete[] std::exchange(m_psz, psz); }

    // pch may lie inside this very text: the old text goes only after the new one is complete.
    CString &Append(char const *pch, std::size_t cch)
    {
        if (cch == 0) {
            return *this;
        }
        std::size_t const cchOld = Length(m_psz);
        char *const psz = Allocate(cchOld + cch);
        if (cchOld != 0) {
            std::memcpy(psz, m_psz, cchOld);
        }
        std::memcpy(psz + cchOld, pch, cch);
        Take(psz);
        return *this;
    }

    char *m_psz = nullptr; // null for the empty text
};

static_assert(sizeof(CString) == sizeof(void *), "clients' records count on one pointer");
