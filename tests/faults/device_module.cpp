// A software device in a module of its own, with a platform layer of its own, which does not fail.

#include "device/soft_device.h"
#include "platform/export.h"

static std::unique_ptr<CSoftDevice> s_pDevice;

extern "C" {

// Its port; 0 when it could not be started.
PLAT_EXPORT int FaultsDeviceStart()
{
    s_pDevice = std::make_unique<CSoftDevice>();
    std::string strError;
    return s_pDevice->Start(&strError) ? s_pDevice->Port() : 0;
}

PLAT_EXPORT void FaultsDevicePress()
{
    s_pDevice->PressButton();
}

PLAT_EXPORT void FaultsDeviceCut()
{
    s_pDevice->CutLinks(0);
}

PLAT_EXPORT void FaultsDeviceStop()
{
    s_pDevice.reset();
}
}
