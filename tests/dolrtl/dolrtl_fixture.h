// A client of the access library, and the objects that it addresses.

#pragma once

#include "dolrtl/QOMADolC.h"
#include "tests/support/guards.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

struct TestObject {
    std::vector<unsigned char> oid;
    unsigned char dataType;

    unsigned char *Oid() { return oid.data(); }
    DWORD Size() const { return static_cast<DWORD>(oid.size()); }
};

inline TestObject g_addOption{{1, 2, 2, 1, 37}, 4};
inline TestObject g_selectOption{{1, 2, 2, 1, 38}, 4};
inline TestObject g_feeder{{1, 2, 2, 2, 1}, 8};
inline TestObject g_button{{1, 2, 2, 2, 7}, 1};
inline TestObject g_token{{1, 1, 1, 25}, 5};

struct TrapWord {
    DWORD dw = 0;
    unsigned short wTrapId = 0;
};

// A CDolRtl that counts its events and, when told to, acts on them.
class CTestClient {
public:
    CTestClient() : dol(std::in_place, OnEvent, reinterpret_cast<DWORD_PTR>(this)) {}
    explicit CTestClient(DWORD dwPort) : CTestClient() { EXPECT_EQ(InitLocal(dwPort), eDR_OK); }

    DWORD Init(char const *pszAddress, DWORD dwPort, DWORD dwLink)
    {
        return dol->Init(pszAddress, dwPort, dwLink);
    }
    DWORD InitLocal(DWORD dwPort) { return Init(nullptr, dwPort, eLT_LOCAL); }

    DWORD SetText(TestObject &object, std::string str)
    {
        return dol->Set(object.Oid(), object.Size(), object.dataType, str.data(),
                        static_cast<DWORD>(str.size()));
    }
    DWORD SetWord(TestObject &object, DWORD dw)
    {
        return dol->Set(object.Oid(), object.Size(), object.dataType, &dw, sizeof dw);
    }
    DWORD Trap(TestObject &object, unsigned short wId)
    {
        return dol->Trap(object.Oid(), object.Size(), object.dataType, wId);
    }
    std::optional<TrapWord> Read()
    {
        TrapWord trap;
        unsigned char dataType = 0;
        DWORD cb = 0;
        auto *const pBuffer = reinterpret_cast<unsigned char *>(&trap.dw);
        if (dol->ReadTrap(pBuffer, sizeof trap.dw, &cb, &dataType, &trap.wTrapId) != eDR_OK) {
            return std::nullopt;
        }
        return trap;
    }

    static DolRtlCallbackFn Callback() { return OnEvent; }

    int Events(DWORD event)
    {
        std::lock_guard lock(m_mx);
        return m_events[event];
    }
    bool WaitForEvent(DWORD event, int c = 1)
    {
        return WaitFor([&] { return Events(event) >= c; });
    }

    std::function<void(DWORD)> onEvent; // set before Init

private:
    static DWORD OnEvent(DWORD event, DWORD_PTR dwContext)
    {
        auto *const pSelf = reinterpret_cast<CTestClient *>(dwContext);
        if (pSelf->onEvent) {
            pSelf->onEvent(event);
        }
        std::lock_guard lock(pSelf->m_mx);
        ++pSelf->m_events[event];
        return 0;
    }

    std::mutex m_mx;
    std::map<DWORD, int> m_events;

public:
    std::optional<CDolRtl> dol; // the last, so that its end comes first and waits for a callback
};
