#include "device/soft_device_impl.h"

#include <algorithm>

namespace {

constexpr DWORD kLoopbackNet = 127;

bool IsAddressText(std::string const &str)
{
    return !str.empty() && str.size() <= kLinkMaxAddressText &&
           std::all_of(str.begin(), str.end(), [](char ch) {
               return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') ||
                      (ch >= 'a' && ch <= 'z') || ch == '.' || ch == '-' || ch == '_';
           });
}

bool IsLoopback(LinkAddress const &address)
{
    return address.dwHost >> 24 == kLoopbackNet;
}

} // namespace

// ---- Who a client is

DWORD CSoftDeviceImpl::CheckHello(CDeviceLink &link, CLinkReader &reader, BYTE *pUse,
                                  std::string *pstrWanted)
{
    WORD const wVersion = reader.Word16();
    if (reader.IsGood() && wVersion != kLinkVersion) {
        return eLR_VERSION_MISMATCH; // what follows may look otherwise
    }
    *pUse = reader.Byte();
    *pstrWanted = reader.Text8();
    bool const fKnown = *pUse == eLU_PROBE || *pUse == eLU_LOCAL || *pUse == eLU_NETWORK;
    if (!reader.IsComplete() || !fKnown) {
        return eLR_BAD_REQUEST;
    }
    return *pUse == eLU_LOCAL && !IsLoopback(link.Peer()) ? DWORD{eLR_REFUSED} : DWORD{eLR_OK};
}

void CSoftDeviceImpl::Hello(CDeviceLink &link, LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    if (frame.kind != eLK_HELLO || reader.Word32() != kLinkMagic) {
        Report(eEV_LINK_REFUSED,
               {{"link", link.Id()}, {"reason", "it does not begin with a hello"}});
        link.fGone = true;
        CloseLink(link);
        return;
    }
    BYTE use = eLU_PROBE;
    std::string strWanted;
    DWORD const dwResult = CheckHello(link, reader, &use, &strWanted);
    bool const fStay = dwResult == eLR_OK && use != eLU_PROBE;
    if (fStay && use == eLU_LOCAL) {
        link.strAddress = GiveAddress(strWanted);
    }

    CLinkWriter writer;
    writer.Word16(kLinkVersion).Bytes8(link.strAddress.data(), link.strAddress.size());
    Answer(link, frame, dwResult, writer.Take());
    if (fStay) {
        link.use = use;
        LinkUp(link);
        return;
    }
    if (dwResult != eLR_OK) {
        Report(eEV_LINK_REFUSED,
               {{"link", link.Id()}, {"reason", "result " + std::to_string(dwResult)}});
    }
    link.fGone = true;
    link.PostEnd();
}

void CSoftDeviceImpl::LinkUp(CDeviceLink &link)
{
    link.fHello = true;
    bool const fLocal = link.use == eLU_LOCAL;
    Report(eEV_LINK_UP, {{"link", link.Id()},
                         {"use", fLocal ? "local" : "network"},
                         {"address", fLocal ? link.strAddress : FormatAddress(link.Peer())}});
}

CDeviceLink *CSoftDeviceImpl::FindLocal(std::string const &strAddress)
{
    for (auto const &pLink : m_links) {
        if (!pLink->fGone && pLink->use == eLU_LOCAL && pLink->strAddress == strAddress) {
            return pLink.get();
        }
    }
    return nullptr;
}

// Numbers are not given twice, so that one whose client is about to come back stays free for it.
std::string CSoftDeviceImpl::GiveAddress(std::string const &strWanted)
{
    if (IsAddressText(strWanted) && !FindLocal(strWanted)) {
        return strWanted;
    }
    std::string strAddress;
    do {
        strAddress = "LINK" + std::to_string(++m_nLastAddress);
    } while (FindLocal(strAddress));
    return strAddress;
}

// ---- Requests

void CSoftDeviceImpl::Answer(CDeviceLink &link, LinkFrame const &request, DWORD dwResult,
                             LinkBytes rest)
{
    CLinkWriter writer;
    writer.Word32(dwResult);
    if (dwResult == eLR_OK) {
        writer.Raw(rest.data(), rest.size());
    }
    auto const kind = static_cast<BYTE>(request.kind | kLinkAnswerBit);
    LinkFrame answer{kind, request.dwNumber, writer.Take()};
    bool const fGarble = !m_fMute && m_cGarble > 0;
    ReportFrame(link, answer, /*fFromClient=*/false,
                m_fMute              ? eFF_MUTE
                : fGarble            ? eFF_GARBLED
                : m_late.count() > 0 ? eFF_LATE
                                     : eFF_SENT);
    if (m_fMute) {
        return;
    }
    if (fGarble) {
        --m_cGarble;
        answer.payload = {0xFF, 0x01, 0x80}; // not even a whole result
    }
    link.Post(EncodeLinkFrame(answer), LinkClock::now() + m_late);
}

void CSoftDeviceImpl::Request(CDeviceLink &link, LinkFrame const &frame)
{
    if (m_config.onRequest) {
        link.lastRequest = LinkClock::now();
        if (auto const reply = m_config.onRequest(link.Id(), frame)) {
            ReportFrame(link, reply->frame, /*fFromClient=*/false);
            link.Post(EncodeLinkFrame(reply->frame), LinkClock::now() + reply->delay);
        }
        return;
    }
    CLinkReader reader(frame.payload);
    if (frame.kind == eLK_PING) {
        return Answer(link, frame, eLR_OK);
    }
    link.lastRequest = LinkClock::now();
    m_cvPanel.notify_all();
    if (frame.kind == eLK_GET_DEVICE_ID) {
        CLinkWriter writer;
        writer.Bytes32(m_strId.data(), m_strId.size());
        return Answer(link, frame, eLR_OK, writer.Take());
    }
    int const nRow = FindDeviceObject(reader.Bytes8());
    LinkBytes rest;
    DWORD dwResult = eLR_BAD_REQUEST;
    if (reader.IsGood() && nRow < 0) {
        dwResult = eLR_NO_SUCH_OBJECT;
    } else if (frame.kind == eLK_GET) {
        dwResult = Get(reader, nRow, &rest);
    } else if (frame.kind == eLK_SET) {
        dwResult = Set(link, reader, nRow);
    } else if (frame.kind == eLK_TRAP) {
        dwResult = Trap(link, reader, nRow);
    } else if (frame.kind == eLK_UNTRAP) {
        dwResult = UnTrap(link, reader, nRow);
    }
    Answer(link, frame, dwResult, std::move(rest));
}

DWORD CSoftDeviceImpl::Get(CLinkReader &reader, int nRow, LinkBytes *pRest)
{
    BYTE const dataType = reader.Byte();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    LinkBytes value;
    DWORD const dwResult = m_model.Get(nRow, dataType, &value);
    CLinkWriter writer;
    *pRest = writer.Bytes32(value.data(), value.size()).Take();
    return dwResult;
}

DWORD CSoftDeviceImpl::Set(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    BYTE const dataType = reader.Byte();
    LinkBytes const value = reader.Bytes32();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    ObjectChanges changes;
    DWORD const dwResult =
        m_model.Set(link.Id(), link.use == eLU_NETWORK, nRow, dataType, value, &changes);
    LogSet(link, nRow, value, dwResult);
    for (ObjectChange const &change : changes) {
        Publish(change);
    }
    m_cvPanel.notify_all();
    return dwResult;
}

void CSoftDeviceImpl::LogSet(CDeviceLink const &link, int nRow, LinkBytes const &value,
                             DWORD dwResult)
{
    std::string const strText(value.begin(), value.end());
    bool const fZero = strText.find_first_not_of('\0') == std::string::npos;
    if (nRow == eDO_UI_DELETE_OPTION && dwResult == eLR_NO_SUCH_OBJECT) {
        return; // nothing has changed: a client's way to ask whether the device is there
    }
    if (nRow == eDO_SCAN_TOKEN && dwResult != eLR_OK) {
        Report(eEV_CLAIM_REFUSED, OfPress({{"link", link.Id()}}));
    } else if (dwResult != eLR_OK) {
        Report(
            eEV_SET_REFUSED,
            {{"object", g_deviceObjects[nRow].pszName}, {"result", dwResult}, {"link", link.Id()}});
    } else if (nRow == eDO_SCAN_TOKEN) {
        Report(fZero ? eEV_TOKEN_FREED : eEV_PRESS_CLAIMED, OfPress({{"link", link.Id()}}));
    } else if (nRow == eDO_UI_ADD_OPTION || nRow == eDO_UI_DELETE_OPTION) {
        Report(nRow == eDO_UI_ADD_OPTION ? eEV_ENTRY_ADDED : eEV_ENTRY_DELETED,
               {{"text", strText}, {"link", link.Id()}});
    }
}

DWORD CSoftDeviceImpl::Trap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    BYTE const dataType = reader.Byte();
    WORD const wTrapId = reader.Word16();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    if (dataType != g_deviceObjects[nRow].dataType) {
        return eLR_WRONG_TYPE;
    }
    link.registrations[nRow] = {wTrapId, dataType};
    Report(eEV_TRAP_ON, {{"object", g_deviceObjects[nRow].pszName}, {"link", link.Id()}});
    return eLR_OK;
}

DWORD CSoftDeviceImpl::UnTrap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    if (link.registrations.erase(nRow) == 0) {
        return eLR_NO_SUCH_OBJECT;
    }
    Report(eEV_TRAP_OFF, {{"object", g_deviceObjects[nRow].pszName}, {"link", link.Id()}});
    return eLR_OK;
}
