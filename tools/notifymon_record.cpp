#include "tools/notifymon_record.h"

#include "session/event_text.h"

#include <nlohmann/json.hpp>

bool CHeardTape::Start(std::string const &strFile, std::string *pstrError)
{
    m_fOn = m_file.Open(strFile, "notifymon " QOMA_VERSION, /*cDevices=*/0, m_parts, pstrError);
    return m_fOn;
}

void CHeardTape::Write(SessionEvent const &event)
{
    if (!m_fOn) {
        return;
    }
    SessionEvent masked = event;
    masked.strDevice = m_mask.Address(event.strDevice);
    std::visit([&](auto &what) { Mask(what); }, masked.what);
    EventJson line = ObjectOf(masked);
    line.erase("time"); // the tape has its own, which the clock of the day does not move
    m_file.Write(line);
}

void CHeardTape::Mask(Notification &notification)
{
    notification.strOption = m_mask.Option(notification.strOption);
    notification.strSenderAddress = m_mask.Host(notification.strSenderAddress);
    notification.strSenderName = m_mask.Name("host", notification.strSenderName);
    notification.strText = m_mask.Own(notification.strText);
}

void CHeardTape::Mask(LinkChange &change)
{
    change.strAddress = m_mask.Address(change.strAddress);
    for (std::string &strOption : change.rgstrOption) {
        strOption = m_mask.Own(strOption);
    }
    if (m_parts.fTexts) {
        change.strWhat.clear(); // may name an entry
    }
}
