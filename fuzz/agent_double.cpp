// The access library of the targets that drive the agent.

#include "fuzz/agent_double.h"

CDolRtl::CDolRtl(DolRtlCallbackFn, DWORD_PTR) : m_pImpl(nullptr) {}
CDolRtl::~CDolRtl()
{
    m_pImpl = nullptr;
}
DWORD CDolRtl::Init(char const *, DWORD, DWORD)
{
    return 0;
}
DWORD CDolRtl::GetDeviceId(unsigned char *, DWORD, DWORD *)
{
    return eDR_TIMEOUT;
}
DWORD CDolRtl::Get(unsigned char *, DWORD, unsigned char)
{
    return 0;
}
DWORD CDolRtl::Set(unsigned char *pOid, DWORD cbOid, unsigned char, void *pValue, DWORD cb)
{
    auto const *const pchValue = static_cast<char const *>(pValue);
    g_library.sets.emplace_back(std::string(pOid, pOid + cbOid), std::string(pchValue, cb));
    return g_library.fnSetResult(g_library.sets.back().second);
}
DWORD CDolRtl::Trap(unsigned char *, DWORD, unsigned char, unsigned short)
{
    return 0;
}
DWORD CDolRtl::UnTrap(unsigned char *, DWORD)
{
    return 0;
}
DWORD CDolRtl::ReadTrap(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut,
                        unsigned char *pDataType, unsigned short *pwTrapId)
{
    if (g_library.nRead == g_library.traps.size()) {
        return g_library.dwEnd;
    }
    CLibraryDouble::Trap const &trap = g_library.traps[g_library.nRead++];
    trap.strValue.copy(reinterpret_cast<char *>(pBuffer), cbBuffer);
    *pcbOut = trap.cbSaid;
    *pDataType = static_cast<unsigned char>(trap.cbSaid);
    *pwTrapId = static_cast<unsigned short>(trap.wTrapId);
    return 0;
}
char const *CDolRtl::GetAddress()
{
    return "LINK1";
}
DWORD CDolRtl::GetBridgePort()
{
    return 0;
}
