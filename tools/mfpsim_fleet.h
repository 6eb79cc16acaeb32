#pragma once
/// @file
/// The devices of mfpsim: one, or many that share a thread, each at an address of its own.

#include "device/soft_device.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Devices that are started and stopped together.
class CSimFleet {
public:
    static constexpr unsigned kMost = 1000; ///< devices

    /// What happens at one of them, counted from 1, under its lock; all but onEvent may be none.
    struct Ears {
        std::function<void(std::size_t, DeviceEvent const &)> onEvent;
        std::function<void(std::size_t, DeviceFrame const &)> onFrame;
        std::function<void(std::size_t, DeviceDatagram const &)> onDatagram;
        /// Answers in its place, see SoftDeviceConfig.
        std::function<std::optional<DeviceReply>(std::size_t, DWORD, LinkFrame const &)> onRequest;
    };

    /// One device as config says, or cDevices at its address and those behind it, with numbers behind its name
    /// and in its serial number.
    CSimFleet(SoftDeviceConfig const &config, unsigned cDevices, Ears ears);

    /// Starts them all at one port. False with the reason.
    bool Start(std::string *pstrError);
    void Stop(); ///< all of them

    /// They stay the fleet's.
    std::vector<CSoftDevice *> Devices() const;

private:
    void Make(SoftDeviceConfig config, std::size_t nDevice);

    std::shared_ptr<CDeviceLoop> m_pLoop; // of a fleet
    Ears m_ears;
    SoftDeviceConfig m_config;
    unsigned m_cDevices;
    std::vector<std::unique_ptr<CSoftDevice>> m_devices;
};
