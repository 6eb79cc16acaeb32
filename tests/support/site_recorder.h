// A double of the event manager that keeps what the diagnostic sites report.
//
// A test program that wants it has one source that includes site_recorder.inc, which defines the three
// symbols of foundation/g_site.h in the place of the event manager's own.

#pragma once

#include "foundation/g_site.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

struct CSiteReport {
    std::uint64_t fBase;
    std::uint64_t fCustom;
    LONG nLevel;
    std::string strText; // formatted
};

class CGEvtMgr {
public:
    std::atomic<int> m_fReady{1};
    std::mutex m_lock;
    std::vector<CSiteReport> m_reports; // guarded by m_lock
};

// Installs the double for the length of a block.
class CSiteRecorder {
public:
    CSiteRecorder() { g_pEvtMgr = &m_mgr; }
    ~CSiteRecorder() { g_pEvtMgr = nullptr; }

    void SetReady(bool fReady) { m_mgr.m_fReady = fReady; }

    // What has been reported since the last call must be these, each with at least the beginning of its
    // text: what follows may be a line and a file.
    void ExpectOnly(std::vector<CSiteReport> const &expected)
    {
        auto const reports = Take();
        EXPECT_EQ(reports.size(), expected.size());
        for (std::size_t n = 0; n < std::min(reports.size(), expected.size()); ++n) {
            EXPECT_EQ(reports[n].fBase, expected[n].fBase) << reports[n].strText;
            EXPECT_EQ(reports[n].fCustom, expected[n].fCustom) << reports[n].strText;
            EXPECT_EQ(reports[n].nLevel, expected[n].nLevel) << reports[n].strText;
            auto const &strStart = expected[n].strText;
            EXPECT_EQ(reports[n].strText.substr(0, strStart.size()), strStart);
        }
    }

    // What has been reported since the last call.
    std::vector<CSiteReport> Take()
    {
        std::lock_guard const lock(m_mgr.m_lock);
        return std::exchange(m_mgr.m_reports, {});
    }

private:
    CGEvtMgr m_mgr;
};
