#pragma once
/// @file
/// A run of notifyhub: the hub until somebody ends it.
#include "hub/settings.h"

#include <optional>
#include <string>

/// Runs the hub with the settings, which came from the file; empty for none, and then there is nothing to read again
/// at SIGHUP. Pages are served where web says, or else where the settings do. The exit code.
int RunHub(HubSettings const &settings, std::string const &strFile,
           std::optional<HubListenSettings> const &web);
