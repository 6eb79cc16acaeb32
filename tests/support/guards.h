// Small guards that several test programs share.

#pragma once

#include "foundation/g_os.h"
#include "platform/probe.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>

// At the end of its block the three counters must be back at what they were at its start.
class CCountersGuard {
public:
    CCountersGuard() = default;
    ~CCountersGuard()
    {
        EXPECT_EQ(g_cObjects, m_cObjects);
        EXPECT_EQ(g_cMemory, m_cMemory);
        EXPECT_EQ(g_cbMemory, m_cbMemory);
    }
    CCountersGuard(CCountersGuard const &) = delete;
    CCountersGuard &operator=(CCountersGuard const &) = delete;

    DWORD const m_cObjects = g_cObjects;
    DWORD const m_cMemory = g_cMemory;
    DWORD const m_cbMemory = g_cbMemory;
};

// Waits until fnDone() is true and returns whether it became so. The limit is for a broken build, not
// for a slow machine.
template <class Condition>
bool WaitFor(Condition fnDone, std::chrono::seconds limit = std::chrono::seconds(30))
{
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!fnDone()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// What the process holds of the system. A module's own copy of the platform layer counts its handles by
// itself, so on POSIX the descriptors behind them are what can be seen from here.
inline std::size_t HeldHandles()
{
    if (!kIsPosix) {
        return PlatHandleCount();
    }
    std::filesystem::directory_iterator const folder("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(folder), end(folder)));
}

// A folder of the test's own, gone with all that is in it at the end of the block.
class CTempDir {
public:
    CTempDir()
    {
        std::random_device random;
        do {
            m_path = std::filesystem::temp_directory_path() / ("qoma-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path));
    }
    ~CTempDir()
    {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
        EXPECT_FALSE(error) << m_path << ": " << error.message();
    }
    CTempDir(CTempDir const &) = delete;
    CTempDir &operator=(CTempDir const &) = delete;

    std::string File(char const *pszName) const { return (m_path / pszName).string(); }

private:
    std::filesystem::path m_path;
};

inline std::string Contents(std::string const &strName)
{
    std::ifstream file(strName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void Fill(std::string const &strName, std::string const &strContents)
{
    std::ofstream(strName, std::ios::binary) << strContents;
}
