// What the tests of the event manager share: a registry file and a log.

#pragma once

#include "evtmgr/g_evthost.h"
#include "evtmgr/g_evtmgr.h"
#include "evtmgr/g_filehandler.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"

#include <cstdio>
#include <map>
#include <sstream>

class CEvtMgrTest : public testing::Test {
protected:
    ~CEvtMgrTest() override { GRemoveEvtMgr("mgr"); }
    // $M stands for the key of the manager "mgr", $B for that of the base categories, $LOG for the log.
    void Reg(std::string const &strBody)
    {
        std::string str = ReplaceAll(strBody, "$M", std::string(kszModulesKey) + "\\mgr");
        str = ReplaceAll(str, "$B", kszBaseCategoryKey);
        m_reg.Write(ReplaceAll(str, "$LOG", ReplaceAll(m_strLog, "\\", "\\\\")));
    }
    CGFileEvtHandler *Install(std::string const &strBody)
    {
        Reg(strBody);
        EXPECT_EQ(GInstallEvtMgr("mgr"), DWORD{eGE_OK});
        CGEvtMgr *const pEvtMgr = g_pEvtMgr;
        CGQueueGuard const guard(*pEvtMgr);
        void *pHandler = pEvtMgr->GetHead()->m_pNext->m_pData;
        return static_cast<CGFileEvtHandler *>(static_cast<CGBaseEvtHandler *>(pHandler));
    }
    std::string ReadLog() const { return Contents(m_strLog); }
    // How many lines "[T]: W N." each writer W has in a log, where they must be whole and in order.
    static std::map<std::string, int> CountLines(std::string const &strLog)
    {
        std::map<std::string, int> seen;
        std::istringstream log(strLog);
        for (std::string strLine; std::getline(log, strLine);) {
            char szWriter[8] = "";
            int nLine = 0, cch = 0;
            if (std::sscanf(strLine.c_str(), "[T]: %7[w0-9] %d.%n", szWriter, &nLine, &cch) == 2) {
                EXPECT_STREQ(strLine.c_str() + cch, "\r") << strLine;
                EXPECT_EQ(nLine, seen[szWriter]++) << strLine;
            }
        }
        return seen;
    }

    // A log that takes levels up to 1.
    std::string const m_strOn =
        "\n[$M]\n\"Id String\"=\"[T]:\"\n\n[$M\\File]\n\"File Name\"=\"$LOG\"\n\"State\"=dword:1\n"
        "\"Level\"=dword:1\n\"Base Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n"
        "\"Custom Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n";
    std::string const m_strAppend = "\"Append\"=dword:1\n";
    CCountersGuard m_counters; // ends after all that must have given back what it had
    CTempDir m_dir;
    CRegFile m_reg{m_dir.File("test.reg")};
    std::string const m_strLog = m_dir.File("Test.LOG");
};
