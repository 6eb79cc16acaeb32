#include "device/device_model.h"

#include "device/kick_sender.h"
#include "platform/check.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxPanelEntries = 256;

std::string ToText(LinkBytes const &bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

LinkBytes ToBytes(std::string const &str)
{
    return LinkBytes(str.begin(), str.end());
}

bool IsZero(LinkBytes const &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](BYTE b) { return b == 0; });
}

} // namespace

bool CScanToken::Claim(ClientId client)
{
    if (!m_fPressWaits || (m_holder != 0 && m_holder != client)) {
        return false;
    }
    m_fPressWaits = false;
    m_holder = client;
    return true;
}

bool CScanToken::Free(ClientId client)
{
    if (m_holder != client) {
        return false;
    }
    m_holder = 0;
    return true;
}

CDeviceModel::CDeviceModel(std::string const &strSerial)
{
    m_values[eDO_NOT_READY_SOURCE_SCANNER] = WordValue(0);
    m_values[eDO_SCANNER_BUTTON_STATUS] = WordValue(kButtonOff);
    m_values[eDO_SCAN_TOKEN] = LinkBytes(kTokenSize);
    m_values[eDO_SERIAL_NUMBER] = ToBytes(strSerial);
    m_values[eDO_FAX_UPLOAD] = WordValue(0);
}

LinkBytes const &CDeviceModel::Value(int nRow) const
{
    PLAT_CHECK(nRow >= 0 && nRow < eDO_COUNT);
    return m_values[static_cast<std::size_t>(nRow)];
}

DWORD CDeviceModel::Get(int nRow, BYTE dataType, LinkBytes *pValue) const
{
    if (dataType != g_deviceObjects[nRow].dataType) {
        return eLR_WRONG_TYPE;
    }
    *pValue = Value(nRow);
    return eLR_OK;
}

ObjectChange CDeviceModel::Store(int nRow, LinkBytes value)
{
    PLAT_CHECK(nRow >= 0 && nRow < eDO_COUNT);
    m_values[static_cast<std::size_t>(nRow)] = value;
    return {nRow, std::move(value)};
}

DWORD CDeviceModel::Set(ClientId client, bool fNetwork, int nRow, BYTE dataType,
                        LinkBytes const &value, ObjectChanges *pChanges)
{
    DWORD dwResult = CheckDeviceValue(nRow, dataType, value.size());
    if (dwResult != eLR_OK) {
        return dwResult;
    }
    if (nRow == eDO_UI_ADD_OPTION) {
        dwResult = AddEntry(client, fNetwork, ToText(value));
    } else if (nRow == eDO_UI_DELETE_OPTION) {
        dwResult = DeleteEntry(client, ToText(value));
    } else if (nRow == eDO_SCAN_TOKEN) {
        dwResult = SetToken(client, value);
    }
    if (dwResult == eLR_OK && value != Value(nRow)) {
        pChanges->push_back(Store(nRow, value));
    }
    return dwResult;
}

DWORD CDeviceModel::AddEntry(ClientId client, bool fNetwork, std::string const &strText)
{
    // Picked over a network it leaves as one datagram, with a clause of ours behind it.
    if (fNetwork && strText.size() > CKickSender::kMaxText) {
        return eLR_WRONG_LENGTH;
    }
    bool const fThere = std::any_of(m_panel.begin(), m_panel.end(), [&](PanelEntry const &entry) {
        return entry.owner == client && entry.strText == strText;
    });
    if (fThere) {
        return eLR_OK;
    }
    if (m_panel.size() == kMaxPanelEntries) {
        return eLR_FULL;
    }
    m_panel.push_back({strText, client, fNetwork, ++m_dwLastEntry});
    return eLR_OK;
}

DWORD CDeviceModel::DeleteEntry(ClientId client, std::string const &strText)
{
    auto const cErased = std::erase_if(m_panel, [&](PanelEntry const &entry) {
        return entry.owner == client && entry.strText == strText;
    });
    return cErased ? eLR_OK : eLR_NO_SUCH_OBJECT;
}

DWORD CDeviceModel::SetToken(ClientId client, LinkBytes const &value)
{
    if (IsZero(value)) {
        return m_token.Free(client) ? eLR_OK : eLR_BUSY;
    }
    if (m_cRefuseClaims > 0) {
        --m_cRefuseClaims;
        return eLR_REFUSED;
    }
    return m_token.Claim(client) ? eLR_OK : eLR_BUSY;
}

std::vector<PanelEntry> CDeviceModel::ClientGone(ClientId client, ObjectChanges *pChanges)
{
    if (m_token.Free(client)) {
        pChanges->push_back(Store(eDO_SCAN_TOKEN, LinkBytes(kTokenSize)));
    }
    std::vector<PanelEntry> gone;
    for (PanelEntry const &entry : m_panel) {
        if (entry.owner == client) {
            gone.push_back(entry);
        }
    }
    std::erase_if(m_panel, [&](PanelEntry const &entry) { return entry.owner == client; });
    return gone;
}

ObjectChange CDeviceModel::PressButton()
{
    m_token.Press();
    return Store(eDO_SCANNER_BUTTON_STATUS, WordValue(kButtonPressed));
}

ObjectChange CDeviceModel::SetFeeder(bool fOn)
{
    return Store(eDO_NOT_READY_SOURCE_SCANNER, WordValue(fOn ? kFeederBit : 0));
}

ObjectChange CDeviceModel::AnnounceFax()
{
    return Store(eDO_FAX_UPLOAD, WordValue(kFaxWaiting));
}

ObjectChange CDeviceModel::Select(std::string const &strText)
{
    return Store(eDO_UI_SELECT_OPTION, ToBytes(strText));
}
