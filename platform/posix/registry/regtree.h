#pragma once

#include "platform/common/regfile.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

// The contents of a registry file in memory: constant once it is built, so that any number of threads
// read it without a lock.

struct CRegValue {
    DWORD dwType = 0;
    std::string strData;
};

struct CRegKey {
    std::string strName; ///< as it is written in the file
    /// @{
    /// By the names in upper case.
    std::map<std::string, std::unique_ptr<CRegKey>, std::less<>> keys;
    std::map<std::string, CRegValue, std::less<>> values;
    /// @}

    /// The key at the end of a path with backslashes, this one for an empty path; null when there is none.
    CRegKey const *Find(std::string_view path) const;
};

/// Builds the contents out of what a file says.
class CRegTreeBuilder : public CRegVisitor {
public:
    explicit CRegTreeBuilder(CRegKey &root) : m_root(root) {}

    void OnKey(CRegPath const &path) override;
    void OnDeleteKey(CRegPath const &path) override;
    void OnValue(std::string_view name, DWORD dwType, std::string_view data) override;
    void OnDeleteValue(std::string_view name) override;

private:
    CRegKey &m_root;
    CRegKey *m_pKey = nullptr; // the one that values go to
};
