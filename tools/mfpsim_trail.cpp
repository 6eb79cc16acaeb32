#include "tools/mfpsim_trail.h"

#include <algorithm>

namespace {

constexpr std::size_t kMostSteps = 100'000; // of a flood, the last ones

} // namespace

void CEventTrail::Add(std::size_t nDevice, DeviceEvent const &event)
{
    CPlatGuard const lock(m_mx);
    m_steps.push_back({nDevice, LinkClock::now(), event});
    if (m_steps.size() > kMostSteps) {
        m_steps.pop_front();
    }
    ++m_qwAdded;
    m_cv.notify_all();
}

void CEventTrail::Begin()
{
    CPlatGuard const lock(m_mx);
    m_steps.clear();
    m_begun = LinkClock::now();
}

LinkTime CEventTrail::Begun() const
{
    CPlatGuard const lock(m_mx);
    return m_begun;
}

bool CEventTrail::WaitFor(std::size_t nDevice, LinkTime deadline,
                          std::function<bool(DeviceEvent const &)> const &fMatches) const
{
    CPlatWaitGuard lock(m_mx);
    for (;;) {
        for (Step const &step : m_steps) {
            if (step.nDevice == nDevice && step.time <= deadline && fMatches(step.event)) {
                return true;
            }
        }
        if (m_fClosed || m_cv.wait_until(lock.Native(), deadline) == std::cv_status::timeout) {
            return std::any_of(m_steps.begin(), m_steps.end(), [&](Step const &step) {
                return step.nDevice == nDevice && step.time <= deadline && fMatches(step.event);
            });
        }
    }
}

bool CEventTrail::WaitUntil(LinkTime deadline, std::function<bool()> const &fIs) const
{
    for (;;) {
        unsigned long long qwSeen = 0;
        {
            CPlatGuard const lock(m_mx);
            qwSeen = m_qwAdded;
        }
        if (fIs()) {
            return true;
        }
        CPlatWaitGuard lock(m_mx);
        if (m_fClosed || !m_cv.wait_until(lock.Native(), deadline, [&]() PLAT_REQUIRES(m_mx) {
                return m_fClosed || m_qwAdded != qwSeen;
            })) {
            return false;
        }
    }
}

std::vector<std::string> CEventTrail::Lines(std::size_t nDevice, std::size_t cMost) const
{
    CPlatGuard const lock(m_mx);
    std::vector<std::string> lines;
    for (auto it = m_steps.rbegin(); it != m_steps.rend() && lines.size() < cMost; ++it) {
        if (it->nDevice == nDevice) {
            lines.push_back(DeviceEventLine(it->event));
        }
    }
    std::reverse(lines.begin(), lines.end());
    return lines;
}

void CEventTrail::Close()
{
    CPlatGuard const lock(m_mx);
    m_fClosed = true;
    m_cv.notify_all();
}
