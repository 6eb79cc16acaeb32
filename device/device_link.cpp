#include "device/device_link.h"

#include "devlink/link_protocol.h"
#include "platform/check.h"

#include <algorithm>

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMaxOutgoing = 4096; // frames
constexpr milliseconds kSendTime{3000};
constexpr milliseconds kHelloTime{3000}; // from the connection to the first frame

} // namespace

CDeviceLink::CDeviceLink(ClientId id, SOCKET s)
    : m_id(id), m_stream(s), m_silentAt(LinkClock::now() + kHelloTime)
{
}

LinkReceive CDeviceLink::Next(LinkFrame *pFrame, LinkTime now)
{
    LinkReceive const eReceive = m_stream.NextFrame(pFrame);
    if (eReceive == eRX_FRAME) {
        m_silentAt = now + milliseconds(kLinkSilenceMs);
    }
    return eReceive;
}

void CDeviceLink::End()
{
    m_fEnded = true;
    m_outgoing.clear();
}

void CDeviceLink::Close()
{
    End();
    m_stream.Close();
}

void CDeviceLink::Queue(Outgoing outgoing)
{
    if (m_fEnded) {
        return;
    }
    if (m_outgoing.size() == kMaxOutgoing) {
        return End();
    }
    m_outgoing.push_back(std::move(outgoing));
}

void CDeviceLink::Post(LinkBytes bytes, LinkTime due)
{
    Queue({std::move(bytes), due});
}

void CDeviceLink::PostEnd()
{
    Queue({{}, LinkTime::min()});
}

void CDeviceLink::PostFinish()
{
    Queue({{}, LinkTime::min(), true});
}

bool CDeviceLink::SendFirst(LinkTime now)
{
    Outgoing const &first = m_outgoing.front();
    if (first.fFinish) {
        m_stream.FinishSending();
        return true;
    }
    if (first.bytes.empty()) {
        End();
        return false;
    }
    PLAT_CHECK(m_cbSent < first.bytes.size());
    while (m_cbSent < first.bytes.size()) {
        int const n =
            m_stream.SendSome(first.bytes.data() + m_cbSent, first.bytes.size() - m_cbSent);
        if (n > 0) {
            m_cbSent += static_cast<std::size_t>(n);
            m_stuckSince = LinkTime::max();
            continue;
        }
        m_stuckSince = std::min(m_stuckSince, now);
        if (n < 0 || now - m_stuckSince >= kSendTime) {
            End();
        }
        return false;
    }
    m_cbSent = 0;
    return true;
}

void CDeviceLink::Send(LinkTime now)
{
    while (!m_outgoing.empty() && m_outgoing.front().due <= now && SendFirst(now)) {
        m_outgoing.pop_front();
    }
}

LinkTime CDeviceLink::Due() const
{
    if (m_fEnded) {
        return LinkTime::min(); // to be closed and taken away
    }
    LinkTime due = m_silentAt;
    if (AwaitsRoom()) {
        due = std::min(due, m_stuckSince + kSendTime);
    } else if (!m_outgoing.empty()) {
        due = std::min(due, m_outgoing.front().due);
    }
    return due;
}
