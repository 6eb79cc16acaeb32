#pragma once
/// @file
/// What a device is doing, in words.
#include "device/soft_device.h"

#include <string>
#include <vector>

/// A line for each thing, those of links and datagrams on their way below a line that counts them.
std::vector<std::string> StatusLines(DeviceStatus const &status);
