#include "devlink/link_loop.h"

#include "platform/check.h"

#include <algorithm>
#include <array>
#include <system_error>

namespace {

constexpr std::size_t kMostReady = 64; // served between two looks at the times

std::uint64_t KeyOf(CLinkLoop::Place place, DWORD dwSocket)
{
    return static_cast<std::uint64_t>(place) << 32 | dwSocket;
}

} // namespace

CLinkLoop::~CLinkLoop()
{
    {
        CPlatGuard const lock(m_mx);
        PLAT_CHECK(m_clients.empty() && m_times.empty());
        m_fEnding = true;
    }
    m_set.Wake();
    if (m_thread.joinable()) {
        PLAT_CHECK(m_thread.get_id() != std::this_thread::get_id());
        m_thread.join();
    }
}

bool CLinkLoop::Start()
{
    if (!m_set.IsGood()) {
        return false;
    }
    try {
        m_thread = std::thread([this] { Run(); });
        return true;
    } catch (std::system_error const &) {
        return false;
    }
}

CLinkLoop::Place CLinkLoop::Attach(CClient &client)
{
    CPlatGuard const lock(m_mx);
    Place const place = m_lastPlace + 1;
    auto const time = m_times.emplace(LinkTime::max(), place).first;
    try {
        m_clients.emplace(place, Entry{&client, time});
    } catch (...) {
        m_times.erase(time);
        throw;
    }
    return m_lastPlace = place;
}

void CLinkLoop::Detach(Place place)
{
    CPlatWaitGuard lock(m_mx);
    auto const it = m_clients.find(place);
    PLAT_CHECK(it != m_clients.end());
    m_times.erase(it->second.time);
    m_clients.erase(it);
    while (m_serving == place) {
        m_cv.wait(lock.Native());
    }
}

bool CLinkLoop::Add(Place place, SOCKET s, DWORD dwSocket)
{
    return m_set.Add(s, KeyOf(place, dwSocket));
}

bool CLinkLoop::Change(Place place, SOCKET s, DWORD dwSocket, bool fRead, bool fWrite)
{
    return m_set.Change(s, KeyOf(place, dwSocket), fRead, fWrite);
}

void CLinkLoop::Remove(SOCKET s)
{
    m_set.Remove(s);
}

// The node is kept, so that nothing is allocated.
void CLinkLoop::Move(Entry &entry, LinkTime when)
{
    auto node = m_times.extract(entry.time);
    node.value().first = when;
    entry.time = m_times.insert(std::move(node)).position;
}

void CLinkLoop::WakeAt(Place place, LinkTime when)
{
    {
        CPlatGuard const lock(m_mx);
        auto const it = m_clients.find(place);
        if (it == m_clients.end() || it->second.time->first <= when) {
            return; // gone, or it is time by then anyway
        }
        Move(it->second, when);
        if (m_asleepUntil <= when) {
            return; // the thread looks at the times before
        }
        m_asleepUntil = LinkTime::min(); // one wake-up will do
    }
    m_set.Wake();
}

// Serves a client: its socket, or with null what its time has brought.
void CLinkLoop::Serve(Place place, CPlatSocketSet::Ready const *pReady)
{
    CClient *pClient = nullptr;
    {
        CPlatGuard const lock(m_mx);
        auto const it = m_clients.find(place);
        if (it == m_clients.end()) {
            return;
        }
        pClient = it->second.pClient;
        Move(it->second, LinkTime::max());
        m_serving = place;
    }
    if (pReady) {
        pClient->OnReady(static_cast<DWORD>(pReady->qwKey), pReady->bRead, pReady->bWrite);
    }
    LinkTime const next = pClient->OnTime(LinkClock::now());
    CPlatGuard const lock(m_mx);
    m_serving = 0;
    m_cv.notify_all();
    auto const it = m_clients.find(place);
    if (it != m_clients.end() && next < it->second.time->first) {
        Move(it->second, next);
    }
}

// Serves each client once whose time has come. False at the end of the loop.
bool CLinkLoop::ServeDue()
{
    std::size_t cLeft = 0;
    {
        CPlatGuard const lock(m_mx);
        if (m_fEnding) {
            return false;
        }
        cLeft = m_times.size();
    }
    // No more than there are, so that one whose time has always come does not keep the thread from the sockets.
    for (LinkTime const now = LinkClock::now(); cLeft > 0; --cLeft) {
        Place place = 0;
        {
            CPlatGuard const lock(m_mx);
            if (m_times.empty() || m_times.begin()->first > now) {
                break;
            }
            place = m_times.begin()->second;
        }
        Serve(place, nullptr);
    }
    return true;
}

// Notes until when the thread sleeps, and gives the milliseconds.
DWORD CLinkLoop::FallAsleep()
{
    CPlatGuard const lock(m_mx);
    LinkTime const next = m_fEnding         ? LinkTime::min()
                          : m_times.empty() ? LinkTime::max()
                                            : m_times.begin()->first;
    m_asleepUntil = next;
    if (next == LinkTime::max()) {
        return INFINITE;
    }
    return next == LinkTime::min() ? 0 : MillisecondsUntil(next);
}

void CLinkLoop::WakeUp()
{
    CPlatGuard const lock(m_mx);
    m_asleepUntil = LinkTime::min();
}

void CLinkLoop::Run()
{
    std::array<CPlatSocketSet::Ready, kMostReady> ready;
    do {
        std::size_t const c = m_set.Wait(ready.data(), ready.size(), FallAsleep());
        WakeUp();
        for (std::size_t n = 0; n < c; ++n) {
            Serve(static_cast<Place>(ready[n].qwKey >> 32), &ready[n]);
        }
    } while (ServeDue());
}
