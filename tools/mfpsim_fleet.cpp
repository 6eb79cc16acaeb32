#include "tools/mfpsim_fleet.h"

#include <cstdio>

namespace {

std::string Address(std::string const &strFirst, std::size_t nDevice)
{
    DWORD dwHost = 0;
    ParseDottedAddress(strFirst, &dwHost); // a wrong one is told by the device
    std::string const str = FormatAddress({dwHost + static_cast<DWORD>(nDevice - 1), 0});
    return str.substr(0, str.find(':'));
}

std::string Numbered(char const *pszForm, std::size_t nDevice)
{
    char sz[32];
    std::snprintf(sz, sizeof sz, pszForm, static_cast<unsigned>(nDevice));
    return sz;
}

} // namespace

CSimFleet::CSimFleet(SoftDeviceConfig const &config, unsigned cDevices, Ears ears)
    : m_pLoop(std::make_shared<CDeviceLoop>()), m_ears(std::move(ears)), m_config(config),
      m_cDevices(cDevices)
{
    for (std::size_t n = 1; n <= cDevices; ++n) {
        Make(config, n);
    }
}

void CSimFleet::Make(SoftDeviceConfig config, std::size_t nDevice)
{
    config.pLoop = m_pLoop;
    config.onEvent = [this, nDevice](DeviceEvent const &event) { m_ears.onEvent(nDevice, event); };
    if (m_ears.onFrame) {
        config.onFrame = [this, nDevice](DeviceFrame const &frame) {
            m_ears.onFrame(nDevice, frame);
        };
    }
    if (m_ears.onDatagram) {
        config.onDatagram = [this, nDevice](DeviceDatagram const &datagram) {
            m_ears.onDatagram(nDevice, datagram);
        };
    }
    if (m_ears.onRequest) {
        config.onRequest = [this, nDevice](DWORD dwLink, LinkFrame const &request) {
            return m_ears.onRequest(nDevice, dwLink, request);
        };
    }
    if (m_cDevices > 1) {
        config.strListen = Address(config.strListen, nDevice);
        config.strModel += Numbered(" No. %u", nDevice);
        config.strSerial = Numbered("VX4-%06u", nDevice);
    }
    m_devices.push_back(std::make_unique<CSoftDevice>(std::move(config)));
}

bool CSimFleet::Start(std::string *pstrError)
{
    PlatRaiseSocketLimit();
    if (!m_pLoop->Start(pstrError)) {
        return false;
    }
    for (auto const &pDevice : m_devices) {
        if (!pDevice->Start(pstrError, m_devices.front()->Port())) {
            return false;
        }
    }
    return true;
}

void CSimFleet::Stop()
{
    for (auto const &pDevice : m_devices) {
        pDevice->Stop();
    }
}

std::vector<CSoftDevice *> CSimFleet::Devices() const
{
    std::vector<CSoftDevice *> devices;
    for (auto const &pDevice : m_devices) {
        devices.push_back(pDevice.get());
    }
    return devices;
}
