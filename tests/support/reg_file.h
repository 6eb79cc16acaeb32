// A registry file of the test's own, from which HKEY_LOCAL_MACHINE is read while the object lives.

#pragma once

#include "platform/registry.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

// In every place of strText.
inline std::string ReplaceAll(std::string strText, std::string const &strOld,
                              std::string const &strNew)
{
    for (std::size_t n = 0; (n = strText.find(strOld, n)) != std::string::npos;
         n += strNew.size()) {
        strText.replace(n, strOld.size(), strNew);
    }
    return strText;
}

class CRegFile {
public:
    explicit CRegFile(std::string strPath) : m_strPath(std::move(strPath))
    {
        Write("");
        PlatSetRegistryFile(m_strPath.c_str());
    }
    ~CRegFile() { PlatSetRegistryFile(nullptr); }

    // Replaces the file, in one step, by one with these keys, such as "\n[A\\B]\n\"Name\"=dword:1\n"; the
    // root is put in front of each key.
    void Write(std::string const &strBody)
    {
        std::ofstream(m_strPath + ".new", std::ios::binary)
            << "Windows Registry Editor Version 5.00\n" +
                   ReplaceAll(strBody, "\n[", "\n[HKEY_LOCAL_MACHINE\\");
        std::filesystem::rename(m_strPath + ".new", m_strPath);
    }

    std::string const m_strPath;
};
