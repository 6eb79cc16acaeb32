// The double of CDolRtl, which keeps the promises of the real one's destructor, and the client.
#include "tests/agent/agent_fixture.h"

#include <algorithm>
#include <new>

class CDolRtlImpl {
public:
    DolRtlCallbackFn pfnCallback;
    DWORD_PTR dwContext;
};

void CDolScript::Raise(DWORD dwEvent)
{
    std::unique_lock lock(m_lock);
    m_returned.wait(lock, [&] { return !m_bRaising; }); // one event at a time
    if (m_pLink == nullptr) {
        return;
    }
    m_bRaising = true;
    m_idRaising = std::this_thread::get_id();
    CDolRtlImpl const link = *m_pLink;
    lock.unlock();
    EXPECT_EQ(link.pfnCallback(dwEvent, link.dwContext), 0u);
    lock.lock();
    m_bRaising = false;
    m_returned.notify_all();
}

// Memory that is missing for the record does not change what the library does.
DWORD CDolScript::Call(char const *pszName, unsigned char const *pOid, DWORD cbOid, int nType,
                       void const *pValue, DWORD cbValue)
{
    CDolScript &script = *s_pScript;
    std::string strLine;
    try {
        strLine = pszName;
        for (DWORD i = 0; i < cbOid; ++i) {
            strLine += (i != 0 ? "." : " ") + std::to_string(pOid[i]);
        }
        strLine += pValue == nullptr ? "" : "/" + std::to_string(nType) + " ";
        auto const *const pb = static_cast<unsigned char const *>(pValue);
        for (DWORD i = 0; i < cbValue; ++i) {
            char szByte[3];
            std::snprintf(szByte, sizeof szByte, nType == 4 || cbValue == 1 ? "%c" : "%02x", pb[i]);
            strLine += szByte;
        }
        script.Locked([&] { script.m_calls.push_back(strLine); });
    } catch (std::bad_alloc const &) {
    }
    script.m_fnOnCall(strLine);
    return script.Locked([&] {
        auto const it = std::find_if(script.m_failures.begin(), script.m_failures.end(),
                                     [&](auto &fail) { return strLine.starts_with(fail.first); });
        return it != script.m_failures.end() ? script.m_failures.extract(it).mapped() : 0;
    });
}

CDolRtl::CDolRtl(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext)
    : m_pImpl(new CDolRtlImpl{pfnCallback, dwContext})
{
    ++CDolScript::s_pScript->m_cLive;
    CDolScript::s_pScript->Locked([&] { CDolScript::s_pScript->m_pLink = m_pImpl; });
}

CDolRtl::~CDolRtl()
{
    CDolScript &script = *CDolScript::s_pScript;
    script.Call("delete");
    std::unique_lock lock(script.m_lock);
    script.m_pLink = script.m_pLink == m_pImpl ? nullptr : script.m_pLink;
    --script.m_cLive;
    script.m_returned.wait(lock, [&] {
        return !script.m_bRaising || script.m_idRaising == std::this_thread::get_id();
    });
    delete m_pImpl;
}

DWORD CDolRtl::Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport)
{
    char szText[100];
    std::snprintf(szText, sizeof szText, "Init %s %d %d", pszAddress ? pszAddress : "null",
                  static_cast<int>(dwPort), static_cast<int>(dwTransport));
    return CDolScript::Call(szText);
}

DWORD CDolRtl::GetDeviceId(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut)
{
    std::string const &strId = CDolScript::s_pScript->m_strDeviceId;
    *pcbOut = static_cast<DWORD>(strId.copy(reinterpret_cast<char *>(pBuffer), cbBuffer));
    return CDolScript::Call("GetDeviceId");
}

DWORD CDolRtl::Get(unsigned char *pOid, DWORD cbOid, unsigned char nType)
{
    return CDolScript::Call("Get", pOid, cbOid, nType, "");
}

DWORD CDolRtl::Set(unsigned char *pOid, DWORD cbOid, unsigned char nType, void *pValue, DWORD cb)
{
    return CDolScript::Call("Set", pOid, cbOid, nType, pValue, cb);
}

DWORD CDolRtl::Trap(unsigned char *pOid, DWORD cbOid, unsigned char nType, unsigned short wTrapId)
{
    char const chTrapId = static_cast<char>('0' + wTrapId);
    return CDolScript::Call("Trap", pOid, cbOid, nType, &chTrapId, 1);
}

DWORD CDolRtl::UnTrap(unsigned char *pOid, DWORD cbOid)
{
    return CDolScript::Call("UnTrap", pOid, cbOid);
}

DWORD CDolRtl::ReadTrap(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut, unsigned char *,
                        unsigned short *pwTrapId)
{
    CDolScript &script = *CDolScript::s_pScript;
    script.m_fnOnCall("ReadTrap");
    std::lock_guard const lock(script.m_lock);
    if (script.m_traps.empty()) {
        return ERROR_FILE_NOT_FOUND;
    }
    auto const &[nTrapId, strValue] = script.m_traps.front();
    *pwTrapId = static_cast<unsigned short>(nTrapId);
    *pcbOut = static_cast<DWORD>(strValue.copy(reinterpret_cast<char *>(pBuffer), cbBuffer));
    script.m_traps.pop_front();
    return 0;
}

char const *CDolRtl::GetAddress()
{
    return "LINK0";
}

DWORD CDolRtl::GetBridgePort()
{
    return 80;
}

DWORD CClient::OnNotify(CallbackType eType, CallbackDataType *pData)
{
    EXPECT_EQ(pData->cbSize, 32u);
    EXPECT_EQ(pData->dwClientData, 0xC11E27u);
    EXPECT_EQ(++s_pClient->m_cInside, 1) << "two calls at once";
    std::string strLine = std::to_string(eType);
    for (DWORD const dw : {pData->dwNotifyCode, DWORD(pData->nValue), pData->dwValue}) {
        strLine += " " + std::to_string(dw);
    }
    for (char const *psz : {pData->strOption, pData->strSenderAddress}) {
        strLine += std::string(" [") + psz + "]";
    }
    s_pClient->Locked([&] {
        s_pClient->m_lines.push_back(strLine);
        s_pClient->m_strSenderName = pData->strSenderName;
    });
    s_pClient->m_fnOnNotify();
    --s_pClient->m_cInside;
    return 4711; // nobody looks at it
}

Lines CClient::Wait(std::size_t cLines)
{
    WaitFor([&] { return Locked([&] { return m_lines.size() >= cLines; }); });
    return Locked([&] { return std::exchange(m_lines, {}); });
}
