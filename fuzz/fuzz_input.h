// What the fuzz targets share: taking an input apart, and saying what must hold.

#pragma once

#include "platform/process.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

// An invariant. The fuzzer keeps the input of a process that ends here.
inline void Must(bool bHolds, char const *pszWhat)
{
    if (!bHolds) {
        std::fprintf(stderr, "does not hold: %s\n", pszWhat);
        std::abort();
    }
}

// Where this process puts an input that has to be a file.
inline std::string ScratchFile()
{
    return (std::filesystem::temp_directory_path() /
            ("fuzz." + std::to_string(GetCurrentProcessId())))
        .string();
}

// Takes an input apart, front to back. Past its end come zeroes and empty texts.
class CFuzzInput {
public:
    CFuzzInput(std::uint8_t const *p, std::size_t cb) : m_str(reinterpret_cast<char const *>(p), cb)
    {
    }

    bool IsEmpty() const { return m_nPos == m_str.size(); }
    unsigned Byte() { return IsEmpty() ? 0 : static_cast<unsigned char>(m_str[m_nPos++]); }
    unsigned Word()
    {
        unsigned const n = Byte();
        return n | Byte() << 8;
    }
    std::string Take(std::size_t cb)
    {
        std::string str = m_str.substr(m_nPos, cb);
        m_nPos += str.size();
        return str;
    }
    std::string Chunk() { return Take(Word()); } // its length comes first, low byte first

private:
    std::string const m_str;
    std::size_t m_nPos = 0;
};
