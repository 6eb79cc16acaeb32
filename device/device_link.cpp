#include "device/device_link.h"

#include "devlink/link_protocol.h"

#include <system_error>

using std::chrono::milliseconds;

namespace {

constexpr size_t kMaxOutgoing = 4096; // frames
constexpr milliseconds kSendTime{3000};

} // namespace

CDeviceLink::CDeviceLink(ClientId id, SOCKET s, Owner &owner)
    : m_id(id), m_owner(owner), m_stream(s)
{
}

CDeviceLink::~CDeviceLink()
{
    Close();
    if (m_thReceive.joinable())
        m_thReceive.join();
    if (m_thSend.joinable())
        m_thSend.join();
}

void CDeviceLink::Start()
{
    m_cRunning = 1;
    try {
        m_thReceive = std::thread([this] { Receive(); });
        ++m_cRunning;
        m_thSend = std::thread([this] { Send(); });
    } catch (std::system_error const &) { // no more threads: no link
        --m_cRunning;
        Close();
    }
}

void CDeviceLink::Close()
{
    m_stream.Close();
    std::lock_guard lock(m_mx);
    m_fClosed = true;
    m_cv.notify_all();
}

void CDeviceLink::Post(LinkBytes bytes, LinkTime due)
{
    bool fTooMany = false;
    {
        std::lock_guard lock(m_mx);
        fTooMany = m_outgoing.size() == kMaxOutgoing;
        if (!fTooMany && !m_fClosed)
            m_outgoing.push_back({std::move(bytes), due});
        m_cv.notify_all();
    }
    if (fTooMany)
        Close();
}

void CDeviceLink::PostEnd()
{
    Post({}, LinkTime::min());
}

void CDeviceLink::Receive()
{
    LinkFrame frame;
    LinkReceive eReceive;
    for (;;) {
        eReceive = m_stream.Receive(&frame, LinkClock::now() + milliseconds(kLinkSilenceMs));
        if (eReceive != eRX_FRAME)
            break;
        m_owner.OnFrame(*this, frame);
    }
    // Before the connection closes: a client that hears us hang up may rely on being forgotten.
    m_owner.OnEnd(*this, eReceive == eRX_GARBAGE   ? "it sends garbage"
                         : eReceive == eRX_TIMEOUT ? "it is silent"
                                                   : "closed");
    Close();
    --m_cRunning;
}

void CDeviceLink::Send()
{
    std::unique_lock lock(m_mx);
    while (!m_fClosed) {
        if (m_outgoing.empty()) {
            m_cv.wait(lock);
            continue;
        }
        if (LinkClock::now() < m_outgoing.front().due) {
            LinkTime const due = m_outgoing.front().due; // a copy: the queue may move meanwhile
            m_cv.wait_until(lock, due);
            continue;
        }
        LinkBytes const bytes = std::move(m_outgoing.front().bytes);
        m_outgoing.pop_front();
        lock.unlock();
        bool const fSent = !bytes.empty() && m_stream.Send(bytes, LinkClock::now() + kSendTime);
        lock.lock();
        if (!fSent)
            m_fClosed = true;
    }
    lock.unlock();
    m_stream.Close();
    --m_cRunning;
}
