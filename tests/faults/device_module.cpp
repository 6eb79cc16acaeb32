#include "tests/faults/device_module.h"

#include "device/soft_device.h"

static std::unique_ptr<CSoftDevice> s_pDevice;

int FaultsDeviceStart()
{
    s_pDevice = std::make_unique<CSoftDevice>();
    std::string strError;
    return s_pDevice->Start(&strError) ? s_pDevice->Port() : 0;
}

void FaultsDevicePress()
{
    s_pDevice->PressButton();
}

void FaultsDeviceCut()
{
    s_pDevice->CutLinks(0);
}

void FaultsDeviceStop()
{
    s_pDevice.reset();
}
