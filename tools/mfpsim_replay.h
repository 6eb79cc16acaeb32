#pragma once
/// @file
/// What mfpsim --replay does: the devices of a tape once more, for whoever connects.

#include "platform/lock.h"
#include "tools/mfpsim_player.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <thread>

/// The players of all devices, and the thread that acts for them. Every function from any thread, but for Start
/// and Stop.
class CReplay {
public:
    CReplay() = default;
    ~CReplay() { Stop(); }
    CReplay(CReplay const &) = delete;
    CReplay &operator=(CReplay const &) = delete;

    /// Reads the tape. False with the reason.
    bool Load(std::string const &strFile, double dSpeed, std::string *pstrError);
    unsigned DeviceCount() const { return m_tape.cDevices; } ///< on the tape

    /// Begins to play on those, which have to be as many and outlive Stop; onEnd is called once all has been played,
    /// on a thread of its own.
    void Start(std::vector<CSoftDevice *> devices, std::function<void()> onEnd);
    void Stop(); ///< for good; onEnd is not being called any more

    /// @{
    /// For the devices' callbacks, under their locks. Devices are counted from 1.
    void Event(std::size_t nDevice, DeviceEvent const &event);
    void Datagram(std::size_t nDevice, DeviceDatagram const &datagram);
    std::optional<DeviceReply> Request(std::size_t nDevice, DWORD dwLink, LinkFrame const &frame);
    /// @}

    /// What is on the tape and is not played, or was not as clients departed, a line each.
    std::vector<std::string> Remarks();
    bool HasDeparted(); ///< a client has

private:
    void Play(std::function<void()> const &onEnd);
    void Act(CSoftDevice &device, TapeAct const &act);
    void Depart(std::string const &strLine) PLAT_REQUIRES(m_mx);

    Tape m_tape;
    std::vector<CSoftDevice *> m_devices;
    std::thread m_thread;

    CPlatMutex m_mx; // behind the devices'
    std::condition_variable m_cv;
    std::list<CTapePlayer> m_players PLAT_GUARDED_BY(m_mx);
    std::vector<CTapePlayer *> m_byDevice PLAT_GUARDED_BY(m_mx);
    std::size_t m_cDepartures PLAT_GUARDED_BY(m_mx) = 0;
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
};
