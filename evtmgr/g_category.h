#pragma once

#include "foundation/g_ref.h"
#include "foundation/g_string.h"
#include "platform/base.h"

#include <cstdint>

/// Rows of a category table. Row 0 belongs to an empty mask and row n to a mask whose highest bit is
/// bit n - 1, so that 64 bits take 65 rows.
inline constexpr LONG kcCategoryRows = 65;

/// One category: its two names and whether each of them is shown. A plain record within the table.
/// The names go on the line as they are: blanks, brackets and separators stand in the registry.
struct CategoryRowType {
    CGString m_strLongName;       ///< before the text
    CGString m_strShortName;      ///< behind the level
    LONG m_fDisplayShortName = 1; ///< 0: the short name of this row stays off the line
    LONG m_fDisplayLongName = 1;  ///< 0: the long name of this row stays off the line
};

/// The words for the bits of a category mask. No name stands in the program: all of them come from the
/// registry. The event manager owns one table for the base categories, each handler one for the custom
/// categories.
///
/// Lifetime: created with `new` by its owner, who counts it in g_cObjects and holds the one reference.
/// Threads: no lock of its own. Its owner loads and reads it under the event manager's queue mutex.
class CCategory : public CGReference {
public:
    /// @{
    /// @param pszName object name, such as "CCategory[CGEvtMgr]"; copied.
    /// A new table shows short and long names and no level, and all its names are empty.
    explicit CCategory(char const *pszName);
    ~CCategory() override;
    /// @}

    /// Reads the table from the registry; may be called again at any time. A missing key or value is no
    /// error: the field keeps what it held, so a name that disappears from the registry stays. Without
    /// memory for the scratch buffers only the three head switches are read; a name for which there is
    /// no memory keeps its old text. A row whose key would need more than 1023 characters is missing.
    /// @param pszKey the table's key under HKEY_LOCAL_MACHINE.
    /// @return always 0.
    DWORD Load(char const *pszKey);

    LONG m_fDisplayShortName; ///< 0 keeps all short names of this table off the line
    LONG m_fDisplayLongName;  ///< 0 keeps all long names of this table off the line
    LONG m_fDisplayLevel;     ///< not 0 shows the level; one of the two tables of a line is enough
    CategoryRowType m_Rows[kcCategoryRows]; ///< see kcCategoryRows for which is whose

private:
    void LoadRow(LONG nRow, char const *pszRowKey, char *pszValue);
};

/// The row of a mask: the number of its highest set bit, counted from 1; 0 for an empty mask.
LONG CategoryIndex(std::uint64_t mask);

/// A table of a new owner, counted in g_cObjects, with the object name "CCategory[OWNER]"; or null.
CCategory *GNewCategory(char const *pszOwner);
