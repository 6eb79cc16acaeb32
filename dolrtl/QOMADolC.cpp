#include "dolrtl/QOMADolC.h"

#include "devlink/link_protocol.h"
#include "dolrtl/link_client.h"

#include <algorithm>
#include <cstring>
#include <new>

// The threads hold shares of their own, so that the object may be deleted on one of them.
class CDolRtlImpl {
public:
    explicit CDolRtlImpl(std::shared_ptr<CLinkClient> pClient) : m_pClient(std::move(pClient)) {}
    ~CDolRtlImpl() { m_pClient->End(); }

    CLinkClient &Client() { return *m_pClient; }

private:
    std::shared_ptr<CLinkClient> m_pClient;
};

namespace {

// No exception leaves the module: no memory is the only one that can come up.
template <class Fn>
DWORD Guarded(CDolRtlImpl *pImpl, Fn fn)
{
    if (!pImpl) {
        return eDR_NO_MEMORY; // the constructor had none
    }
    try {
        return fn(pImpl->Client());
    } catch (...) {
        return eDR_NO_MEMORY;
    }
}

bool IsOid(unsigned char const *pOid, DWORD cbOid)
{
    return pOid && cbOid > 0 && cbOid <= kLinkMaxOid;
}

bool IsWord(unsigned char dataType)
{
    return dataType == eLD_WORD || dataType == eLD_BITS;
}

// Puts the value into the request; words go little-endian.
void PutValue(CLinkWriter &writer, unsigned char dataType, void const *pValue, DWORD cbValue)
{
    if (!IsWord(dataType) || cbValue != sizeof(DWORD)) {
        writer.Bytes32(pValue, cbValue);
        return;
    }
    DWORD dwValue;
    std::memcpy(&dwValue, pValue, sizeof dwValue);
    writer.Word32(sizeof dwValue).Word32(dwValue);
}

DWORD ReadDeviceId(LinkBytes const &answer, unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut)
{
    CLinkReader reader(answer);
    LinkBytes const text = reader.Bytes32();
    if (!reader.IsComplete()) {
        return eDR_BAD_ANSWER;
    }
    auto const cb = static_cast<DWORD>(std::min<std::size_t>(text.size(), cbBuffer - 1));
    std::copy_n(text.begin(), cb, pBuffer);
    pBuffer[cb] = 0;
    *pcbOut = cb;
    return eDR_OK;
}

} // namespace

CDolRtl::CDolRtl(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext) : m_pImpl(nullptr)
{
    try {
        m_pImpl = new CDolRtlImpl(std::make_shared<CLinkClient>(pfnCallback, dwContext));
    } catch (...) {
        m_pImpl = nullptr; // Init says so
    }
}

CDolRtl::~CDolRtl()
{
    delete m_pImpl;
}

DWORD CDolRtl::Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport)
{
    return Guarded(
        m_pImpl, [&](CLinkClient &client) { return client.Init(pszAddress, dwPort, dwTransport); });
}

DWORD CDolRtl::GetDeviceId(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut)
{
    if (pcbOut) {
        *pcbOut = 0;
    }
    if (!pBuffer || cbBuffer == 0 || !pcbOut) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        LinkBytes answer;
        DWORD const dwResult = client.Request(eLK_GET_DEVICE_ID, {}, &answer);
        return dwResult == eDR_OK ? ReadDeviceId(answer, pBuffer, cbBuffer, pcbOut) : dwResult;
    });
}

DWORD CDolRtl::Get(unsigned char *pOid, DWORD cbOid, unsigned char dataType)
{
    if (!IsOid(pOid, cbOid)) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        CLinkWriter writer;
        writer.Bytes8(pOid, cbOid).Byte(dataType);
        return client.Request(eLK_GET, writer.Take(), nullptr);
    });
}

DWORD CDolRtl::Set(unsigned char *pOid, DWORD cbOid, unsigned char dataType, void *pValue,
                   DWORD cbValue)
{
    if (!IsOid(pOid, cbOid) || !pValue || cbValue == 0 || cbValue > kLinkMaxValue) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        CLinkWriter writer;
        writer.Bytes8(pOid, cbOid).Byte(dataType);
        PutValue(writer, dataType, pValue, cbValue);
        return client.Request(eLK_SET, writer.Take(), nullptr);
    });
}

DWORD CDolRtl::Trap(unsigned char *pOid, DWORD cbOid, unsigned char dataType,
                    unsigned short wTrapId)
{
    if (!IsOid(pOid, cbOid)) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        CLinkWriter writer;
        writer.Bytes8(pOid, cbOid).Byte(dataType).Word16(wTrapId);
        return client.Request(eLK_TRAP, writer.Take(), nullptr);
    });
}

DWORD CDolRtl::UnTrap(unsigned char *pOid, DWORD cbOid)
{
    if (!IsOid(pOid, cbOid)) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        CLinkWriter writer;
        writer.Bytes8(pOid, cbOid);
        return client.Request(eLK_UNTRAP, writer.Take(), nullptr);
    });
}

DWORD CDolRtl::ReadTrap(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut,
                        unsigned char *pDataType, unsigned short *pwTrapId)
{
    if (!pBuffer || !pcbOut || !pDataType || !pwTrapId) {
        return eDR_INVALID_ARGUMENT;
    }
    return Guarded(m_pImpl, [&](CLinkClient &client) {
        WaitingTrap trap;
        DWORD const dwResult = client.ReadTrap(&trap);
        if (dwResult != eDR_OK) {
            return dwResult;
        }
        *pcbOut = static_cast<DWORD>(std::min<std::size_t>(trap.value.size(), cbBuffer));
        std::copy_n(trap.value.begin(), *pcbOut, pBuffer);
        *pDataType = trap.dataType;
        *pwTrapId = trap.wTrapId;
        return DWORD{eDR_OK};
    });
}

char const *CDolRtl::GetAddress()
{
    return m_pImpl ? m_pImpl->Client().Address() : "";
}

DWORD CDolRtl::GetBridgePort()
{
    return m_pImpl ? m_pImpl->Client().Port() : 0;
}
