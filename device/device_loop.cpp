#include "device/device_loop.h"

#include "platform/check.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t kMostReady = 64; // served between two looks at the times

std::uint64_t KeyOf(CDeviceLoop::Place place, DWORD dwSocket)
{
    return static_cast<std::uint64_t>(place) << 32 | dwSocket;
}

} // namespace

CDeviceLoop::~CDeviceLoop()
{
    {
        CPlatGuard const lock(m_mx);
        PLAT_CHECK(m_clients.empty());
        m_fEnding = true;
    }
    m_set.Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool CDeviceLoop::Start(std::string *pstrError)
{
    if (!m_set.IsGood()) {
        *pstrError = "cannot wait for sockets, error " + std::to_string(ws::WSAGetLastError());
        return false;
    }
    m_thread = std::thread([this] { Run(); });
    return true;
}

CDeviceLoop::Place CDeviceLoop::Attach(CClient &client)
{
    CPlatGuard const lock(m_mx);
    m_clients[++m_lastPlace] = {&client, LinkTime::max()};
    return m_lastPlace;
}

void CDeviceLoop::Detach(Place place)
{
    PLAT_CHECK(std::this_thread::get_id() != m_thread.get_id()); // it would wait for itself
    CPlatWaitGuard lock(m_mx);
    m_clients.erase(place);
    m_cv.wait(lock.Native(),
              [&]() PLAT_REQUIRES(m_mx) { return m_serving != place || place == 0; });
}

bool CDeviceLoop::Add(Place place, SOCKET s, DWORD dwSocket)
{
    return m_set.Add(s, KeyOf(place, dwSocket));
}

void CDeviceLoop::Change(Place place, SOCKET s, DWORD dwSocket, bool fRead, bool fWrite)
{
    m_set.Change(s, KeyOf(place, dwSocket), fRead, fWrite);
}

void CDeviceLoop::Remove(SOCKET s)
{
    m_set.Remove(s);
}

void CDeviceLoop::Wake(Place place)
{
    {
        CPlatGuard const lock(m_mx);
        auto const it = m_clients.find(place);
        if (it == m_clients.end() || it->second.due == LinkTime::min()) {
            return; // gone, or woken already
        }
        it->second.due = LinkTime::min();
    }
    if (std::this_thread::get_id() != m_thread.get_id()) {
        m_set.Wake();
    }
}

void CDeviceLoop::Serve(Place place, CPlatSocketSet::Ready const *pReady)
{
    CClient *pClient = nullptr;
    {
        CPlatGuard const lock(m_mx);
        auto const it = m_clients.find(place);
        if (it == m_clients.end()) {
            return;
        }
        PLAT_CHECK(m_serving == 0);
        pClient = it->second.pClient;
        it->second.due = LinkTime::max(); // a Wake from here on counts
        m_serving = place;
    }
    if (pReady) {
        pClient->OnReady(static_cast<DWORD>(pReady->qwKey), pReady->bRead, pReady->bWrite);
    }
    LinkTime const due = pClient->OnTime(LinkClock::now());
    CPlatGuard const lock(m_mx);
    m_serving = 0;
    m_cv.notify_all();
    if (auto const it = m_clients.find(place); it != m_clients.end()) {
        it->second.due = std::min(it->second.due, due);
    }
}

// Milliseconds until the first client's time, whose turn it is when there are none.
DWORD CDeviceLoop::UntilNext()
{
    LinkTime next = LinkTime::max();
    CPlatGuard const lock(m_mx);
    for (auto const &[place, entry] : m_clients) {
        next = std::min(next, entry.due);
    }
    if (next == LinkTime::max()) {
        return INFINITE;
    }
    return next <= LinkClock::now() ? 0 : MillisecondsUntil(next);
}

// Whose time it is. False at the end.
bool CDeviceLoop::TakeDue(std::vector<Place> *pDue)
{
    pDue->clear();
    LinkTime const now = LinkClock::now();
    CPlatGuard const lock(m_mx);
    for (auto const &[place, entry] : m_clients) {
        if (entry.due <= now) {
            pDue->push_back(place);
        }
    }
    return !m_fEnding;
}

void CDeviceLoop::Run()
{
    std::array<CPlatSocketSet::Ready, kMostReady> ready;
    std::vector<Place> due;
    for (;;) {
        std::size_t const c = m_set.Wait(ready.data(), ready.size(), UntilNext());
        for (std::size_t i = 0; i < c; ++i) {
            Serve(static_cast<Place>(ready[i].qwKey >> 32), &ready[i]);
        }
        if (!TakeDue(&due)) {
            return;
        }
        for (Place const place : due) {
            Serve(place, nullptr);
        }
    }
}
