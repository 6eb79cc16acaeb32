#pragma once
/// @file
/// The pages of mfpsim: the device's front panel in a browser, and the same as JSON (docs/web-api.md).

#include "tools/mfpsim_commands.h"

#include <memory>
#include <string>

class CSimWebImpl;

/// The pages of a simulation, and what its devices tell them. Where this program was built without pages,
/// Start says so.
class CSimWeb {
public:
    /// Takes events from now on; cDevices as many as the simulation will have.
    explicit CSimWeb(std::size_t cDevices);
    ~CSimWeb(); ///< stops it
    CSimWeb(CSimWeb const &) = delete;
    CSimWeb &operator=(CSimWeb const &) = delete;

    /// @{
    /// Something has happened at that device, counted from 1. For the device's callbacks, under its lock.
    void Event(std::size_t nDevice, DeviceEvent const &event);
    void Frame(std::size_t nDevice, DeviceFrame const &frame);
    /// @}

    /// Begins to listen at "ADDRESS:PORT" or "PORT". The simulation has to outlive it. False with the reason
    /// in one line.
    bool Start(CSimulation &simulation, std::string const &strPlace, std::string *pstrError);
    /// Ends all pages and requests. After CSimulation::Quit, so that no command waits.
    void Stop();
    /// Where the first page is.
    std::string Url() const;

private:
    std::unique_ptr<CSimWebImpl> m_pImpl;
};
