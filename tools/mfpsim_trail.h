#pragma once
/// @file
/// What has happened at the devices since the last command that did something: what scenarios judge by.

#include "device/soft_device.h"
#include "platform/lock.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <string>
#include <vector>

/// The events since then. Every function from any thread; the lock is a leaf.
class CEventTrail {
public:
    /// An event of a device, counted from 1. For the device's callback.
    void Add(std::size_t nDevice, DeviceEvent const &event);

    /// A command that does something begins: what was before it counts no more.
    void Begin();
    LinkTime Begun() const; ///< when that was

    /// Waits for an event of that device, from the last Begin to the deadline, that fMatches says yes to.
    bool WaitFor(std::size_t nDevice, LinkTime deadline,
                 std::function<bool(DeviceEvent const &)> const &fMatches) const;
    /// Waits until fIs says yes; asks again whenever something has happened. False at the deadline. fIs is
    /// called without the lock.
    bool WaitUntil(LinkTime deadline, std::function<bool()> const &fIs) const;

    /// The last events of that device since then as lines of the log, cMost of them.
    std::vector<std::string> Lines(std::size_t nDevice, std::size_t cMost) const;

    /// Ends all waiting, for good.
    void Close();

private:
    struct Step {
        std::size_t nDevice;
        LinkTime time;
        DeviceEvent event;
    };

    mutable CPlatMutex m_mx; // a leaf
    mutable std::condition_variable m_cv;
    std::deque<Step> m_steps PLAT_GUARDED_BY(m_mx);
    unsigned long long m_qwAdded PLAT_GUARDED_BY(m_mx) = 0; // so many were added in all
    LinkTime m_begun PLAT_GUARDED_BY(m_mx) = LinkClock::now();
    bool m_fClosed PLAT_GUARDED_BY(m_mx) = false;
};
