// The double of CDolRtl, which keeps the promises of the real one's destructor, and the client.

#include "tests/agent/agent_fixture.h"

#include <algorithm>
#include <cstring>

CDolScript *CDolScript::s_pScript = nullptr;

struct CDolScript::CLink {
    DolRtlCallbackFn pfnCallback;
    DWORD_PTR dwContext;
    bool fRaising = false; // inside the callback, on idRaising
    std::thread::id idRaising = {};
};

class CDolRtlImpl {
public:
    std::shared_ptr<CDolScript::CLink> pLink;
};

namespace {

std::string OidText(unsigned char const *pOid, DWORD cbOid, int dataType = -1)
{
    std::string strOid;
    for (DWORD i = 0; i < cbOid; ++i) {
        strOid += (i != 0 ? "." : " ") + std::to_string(pOid[i]);
    }
    return dataType < 0 ? strOid : strOid + "/" + std::to_string(dataType) + " ";
}

std::string ValueText(void const *pValue, DWORD cbValue, int dataType)
{
    auto const *const pb = static_cast<unsigned char const *>(pValue);
    std::string strValue(dataType == 4 ? pb : pb + cbValue, pb + cbValue);
    for (DWORD i = 0; i < cbValue && dataType != 4; ++i) {
        strValue += {"0123456789abcdef"[pb[i] >> 4], "0123456789abcdef"[pb[i] & 15]};
    }
    return strValue;
}

} // namespace

Lines CDolScript::Take()
{
    std::lock_guard const lock(m_lock);
    return std::exchange(m_calls, {});
}

void CDolScript::Fail(std::string const &strPrefix, DWORD dwCode)
{
    std::lock_guard const lock(m_lock);
    m_failures[strPrefix] = dwCode;
}

void CDolScript::Push(unsigned short wTrapId, std::string const &strValue)
{
    std::lock_guard const lock(m_lock);
    m_traps.emplace_back(wTrapId, strValue);
}

void CDolScript::Raise(DWORD dwEvent)
{
    std::unique_lock lock(m_lock);
    if (m_links.empty()) {
        return;
    }
    std::shared_ptr<CLink> const pLink = m_links.back();
    m_returned.wait(lock, [&] { return !pLink->fRaising; }); // one event at a time
    pLink->fRaising = true;
    pLink->idRaising = std::this_thread::get_id();
    lock.unlock();
    EXPECT_EQ(pLink->pfnCallback(dwEvent, pLink->dwContext), 0u);
    lock.lock();
    pLink->fRaising = false;
    m_returned.notify_all();
}

bool CDolScript::IsRaising()
{
    std::lock_guard const lock(m_lock);
    return !m_links.empty() && m_links.back()->fRaising;
}

std::size_t CDolScript::Live()
{
    std::lock_guard const lock(m_lock);
    return m_links.size();
}

DWORD CDolScript::TakeFailure(std::string const &strLine)
{
    std::lock_guard const lock(m_lock);
    auto const it = std::find_if(m_failures.begin(), m_failures.end(),
                                 [&](auto &failure) { return strLine.starts_with(failure.first); });
    return it != m_failures.end() ? m_failures.extract(it).mapped() : 0;
}

// Memory that is missing for the record does not change what the library does.
template <class Text>
DWORD CDolScript::Call(Text fnText)
{
    std::string strLine;
    try {
        strLine = fnText();
        std::lock_guard const lock(m_lock);
        m_calls.push_back(strLine);
    } catch (std::bad_alloc const &) {
    }
    if (m_fnOnCall) {
        m_fnOnCall(strLine);
    }
    return TakeFailure(strLine);
}

CDolRtl::CDolRtl(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext) : m_pImpl(nullptr)
{
    auto pImpl = std::make_unique<CDolRtlImpl>();
    pImpl->pLink = std::make_shared<CDolScript::CLink>(CDolScript::CLink{pfnCallback, dwContext});
    std::lock_guard const lock(CDolScript::s_pScript->m_lock);
    CDolScript::s_pScript->m_links.push_back(pImpl->pLink);
    m_pImpl = pImpl.release();
}

CDolRtl::~CDolRtl()
{
    std::unique_ptr<CDolRtlImpl> const pImpl(m_pImpl);
    CDolScript &script = *CDolScript::s_pScript;
    script.Call([] { return "delete"; });
    std::unique_lock lock(script.m_lock);
    std::erase(script.m_links, pImpl->pLink);
    script.m_returned.wait(lock, [&] {
        return !pImpl->pLink->fRaising || pImpl->pLink->idRaising == std::this_thread::get_id();
    });
}

DWORD CDolRtl::Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport)
{
    return CDolScript::s_pScript->Call([&] {
        return "Init " + std::string(pszAddress ? pszAddress : "null") + " " +
               std::to_string(dwPort) + " " + std::to_string(dwTransport);
    });
}

DWORD CDolRtl::GetDeviceId(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut)
{
    CDolScript::s_pScript->Call([] { return "GetDeviceId"; });
    std::string const &strId = CDolScript::s_pScript->m_strDeviceId;
    *pcbOut = static_cast<DWORD>(strId.copy(reinterpret_cast<char *>(pBuffer), cbBuffer));
    return CDolScript::s_pScript->m_dwDeviceIdResult;
}

DWORD CDolRtl::Get(unsigned char *pOid, DWORD cbOid, unsigned char type)
{
    return CDolScript::s_pScript->Call([&] { return "Get" + OidText(pOid, cbOid, type); });
}

DWORD CDolRtl::Set(unsigned char *pOid, DWORD cbOid, unsigned char type, void *pValue, DWORD cb)
{
    return CDolScript::s_pScript->Call(
        [&] { return "Set" + OidText(pOid, cbOid, type) + ValueText(pValue, cb, type); });
}

DWORD CDolRtl::Trap(unsigned char *pOid, DWORD cbOid, unsigned char type, unsigned short wId)
{
    return CDolScript::s_pScript->Call(
        [&] { return "Trap" + OidText(pOid, cbOid, type) + std::to_string(wId); });
}

DWORD CDolRtl::UnTrap(unsigned char *pOid, DWORD cbOid)
{
    return CDolScript::s_pScript->Call([&] { return "UnTrap" + OidText(pOid, cbOid); });
}

DWORD CDolRtl::ReadTrap(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut, unsigned char *,
                        unsigned short *pwTrapId)
{
    CDolScript &script = *CDolScript::s_pScript;
    std::lock_guard const lock(script.m_lock);
    if (script.m_traps.empty()) {
        DWORD const dwFailure = script.TakeFailure("ReadTrap");
        return dwFailure != 0 ? dwFailure : 2;
    }
    auto const &[wTrapId, strValue] = script.m_traps.front();
    *pwTrapId = wTrapId;
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
    strLine +=
        " [" + std::string(pData->strOption) + "] [" + std::string(pData->strSenderAddress) + "]";
    {
        std::lock_guard const lock(s_pClient->m_lock);
        s_pClient->m_lines.push_back(strLine);
        s_pClient->m_strSenderName = pData->strSenderName;
    }
    s_pClient->m_fnOnNotify();
    --s_pClient->m_cInside;
    return 4711; // nobody looks at it
}

Lines CClient::Wait(std::size_t cLines)
{
    WaitFor([&] {
        std::lock_guard const lock(m_lock);
        return m_lines.size() >= cLines;
    });
    std::lock_guard const lock(m_lock);
    return std::exchange(m_lines, {});
}
