// A software device in a module of its own, with a platform layer of its own.

#pragma once

#include "platform/export.h"

extern "C" {
PLAT_EXPORT int FaultsDeviceStart(); // its port; 0 when it could not be started. Once
PLAT_EXPORT void FaultsDevicePress();
PLAT_EXPORT void FaultsDeviceCut();
PLAT_EXPORT void FaultsDeviceStop();
}
