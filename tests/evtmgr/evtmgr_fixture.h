// What the tests of the event manager share: registry, log, a handler that keeps its lines.

#pragma once

#include "evtmgr/g_evthost.h"
#include "evtmgr/g_evtmgr.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"

#include <functional>
#include <iterator>

class CRecordingHandler : public CGBaseEvtHandler {
public:
    explicit CRecordingHandler(CGEvtMgr *pEvtMgr) : CGBaseEvtHandler(pEvtMgr, "CRecordingHandler")
    {
    }
    char const *GetModuleName() override { return "Rec"; }
    DWORD LoadModuleParams() override { return 0; }
    LONG IsOn() override { return m_fOn; }
    DWORD WriteText(char *pszText) override
    {
        m_lines.emplace_back(pszText);
        m_fnOnText();
        return 0;
    }

    LONG m_fOn = 1;
    std::vector<std::string> m_lines;
    std::function<void()> m_fnOnText = [] {};
};

class CEvtMgrTest : public testing::Test {
protected:
    // $M stands for the key of the manager "mgr", $B for that of the base categories, $LOG for the log.
    void Reg(std::string const &strBody)
    {
        std::string str = ReplaceAll(strBody, "$M", std::string(kszModulesKey) + "\\mgr");
        str = ReplaceAll(str, "$B", kszBaseCategoryKey);
        m_reg.Write(ReplaceAll(str, "$LOG", ReplaceAll(m_strLog, "\\", "\\\\")));
    }
    std::string ReadLog() const
    {
        std::ifstream file(m_strLog, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
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

// A manager outside g_pEvtMgr, and a recording handler at the end of its list, on up to level 1.
class CMgrWithRecorder {
public:
    CMgrWithRecorder()
    {
        std::atomic<CGEvtMgr *> pHolder{nullptr};
        NewEvtMgr(&pHolder, "mgr", eEM_NORMAL);
        m_pMgr = pHolder;
        m_pHandler = new CRecordingHandler(m_pMgr);
        ++g_cObjects;
        m_pMgr->AddNode("CRecordingHandler", m_pHandler, 0, 1);
        m_pHandler->AddRef();
        m_pHandler->m_State = m_pHandler->m_Level = 1;
        m_pHandler->m_BaseCategoryMask = 8;
    }
    ~CMgrWithRecorder() { EXPECT_EQ(m_pMgr->Release(), 0); }

    CGEvtMgr *m_pMgr;
    CRecordingHandler *m_pHandler;
};
