#pragma once

/// @file
/// Reader of registry files, the text format of the Windows registry editor. The format, and where this
/// reader is stricter than the editor, is told in docs/registry-file.md.

#include "platform/base.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::size_t kcbMaxRegFile = std::size_t{16} * 1024 * 1024; ///< bytes
inline constexpr std::size_t kcchMaxRegKeyName = 255;     ///< characters of one key
inline constexpr std::size_t kcMaxRegDepth = 512;         ///< keys within keys
inline constexpr std::size_t kcchMaxRegValueName = 16383; ///< characters

/// A key below HKEY_LOCAL_MACHINE: the names on the way to it, UTF-8. Empty for HKEY_LOCAL_MACHINE itself.
using CRegPath = std::vector<std::string_view>;

/// Gets what a file says, in its order. The views live for the call alone. What is said about other root
/// keys than HKEY_LOCAL_MACHINE is checked, but not passed on.
class CRegVisitor {
public:
    virtual ~CRegVisitor() = default;

    /// The key exists, and is the one that the values that follow belong to.
    virtual void OnKey(CRegPath const &path) = 0;
    /// The key goes with all that is in it. Never the root itself.
    virtual void OnDeleteKey(CRegPath const &path) = 0;
    /// @{
    /// An empty name is the key's own value. Data of the text types (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ)
    /// is UTF-8 with the terminators that the file gives, other data is as in the file.
    virtual void OnValue(std::string_view name, DWORD dwType, std::string_view data) = 0;
    virtual void OnDeleteValue(std::string_view name) = 0;
    /// @}
};

/// Why a file is refused.
struct CRegProblem {
    unsigned nLine;        ///< from 1
    std::string strReason; ///< in one line
};

/// Reads a file's bytes to the end or to the first fault. On a fault the visitor may have heard a part of
/// the file already, and whoever calls has to drop that. Throws std::bad_alloc only.
std::optional<CRegProblem> ReadRegFile(std::string_view bytes, CRegVisitor &visitor);
