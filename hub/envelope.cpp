#include "hub/envelope.h"

#include "session/event_text.h"

#include <nlohmann/json.hpp>

using std::chrono::milliseconds;

CEventIds::CEventIds()
{
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device()};
    m_random.seed(seed);
}

std::string CEventIds::Next(std::chrono::system_clock::time_point tp)
{
    std::int64_t const nTime = std::chrono::floor<milliseconds>(tp.time_since_epoch()).count();
    if (nTime == m_nLast) {
        // The next number, so that the order within a millisecond is kept. It does not come to its end.
        for (auto it = m_tail.rbegin(); it != m_tail.rend() && ++*it == 0; ++it) {
        }
    } else {
        for (std::uint16_t &n : m_tail) {
            n = static_cast<std::uint16_t>(m_random());
        }
        m_tail[0] &= 0x7FFF;
    }
    m_nLast = nTime;
    // 128 bits in groups of 5, the first of which has only 3.
    std::array<std::uint8_t, 16> ab{};
    for (std::size_t i = 0; i < 6; ++i) {
        ab[i] = static_cast<std::uint8_t>(nTime >> (40 - 8 * i));
    }
    for (std::size_t i = 0; i < m_tail.size(); ++i) {
        ab[6 + 2 * i] = static_cast<std::uint8_t>(m_tail[i] >> 8);
        ab[7 + 2 * i] = static_cast<std::uint8_t>(m_tail[i]);
    }
    constexpr char kAlphabet[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
    std::string strId;
    unsigned nBits = 0;
    unsigned cBits = 2; // as if two more stood in front
    for (std::uint8_t const b : ab) {
        nBits = nBits << 8 | b;
        for (cBits += 8; cBits >= 5; cBits -= 5) {
            strId += kAlphabet[nBits >> (cBits - 5) & 31];
        }
    }
    return strId;
}

namespace {

struct TypeRow {
    CallbackType eType;
    char const *pszType;
};

constexpr std::array kTypes{
    TypeRow{eCT_SELECT_NOTIFY, "panel.picked"},
    TypeRow{eCT_ADF_NOTIFY, "feeder.changed"},
    TypeRow{eCT_SCANNER_BUTTON_NOTIFY, "button.pressed"},
    TypeRow{eCT_FAX_UPLOAD_NOTIFY, "fax.waiting"},
};

std::string TypeOf(Notification const &notification)
{
    if (notification.srvq) {
        return "discovery.answered";
    }
    for (TypeRow const &row : kTypes) {
        if (row.eType == notification.eType) {
            return row.pszType;
        }
    }
    return "device.notified"; // a kind that is younger than this table
}

std::string TypeOf(LinkChange const &change)
{
    return std::string("link.") + StateName(change.eState);
}

std::string TypeOf(DroppedEvents const &)
{
    return "events.dropped";
}

} // namespace

std::optional<HubEvent> CEnvelopes::Make(SessionEvent const &event)
{
    auto const *const pNotification = std::get_if<Notification>(&event.what);
    if (pNotification != nullptr && pNotification->eType == eCT_LINK_RECOVERED) {
        return std::nullopt;
    }
    HubEvent made;
    made.strId = m_ids.Next(event.tpTime);
    made.strType = std::string(kHubTypePrefix) +
                   std::visit([](auto const &what) { return TypeOf(what); }, event.what);
    made.strDevice = event.strDevice;
    made.strText = pNotification != nullptr ? pNotification->strText : "";
    made.tpTime = event.tpTime;

    EventJson data = ObjectOf(event);
    data.erase("time");
    data.erase("device");
    EventJson envelope{{"specversion", "1.0"},           {"id", made.strId},
                       {"source", "/" + m_strSite},      {"type", made.strType},
                       {"time", TimeText(event.tpTime)}, {"datacontenttype", "application/json"}};
    if (!event.strDevice.empty()) {
        envelope["source"] = "/" + m_strSite + "/" + event.strDevice;
        envelope["subject"] = event.strDevice;
    }
    envelope["data"] = std::move(data);
    made.strJson = LineOf(envelope);
    return made;
}
