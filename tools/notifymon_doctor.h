#pragma once
/// @file
/// notifymon doctor: why do notifications not come? Looks at everything on their way, one after the
/// other, and prints a line for each finding, with what to do where it is not well.
#include "tools/notifymon_ending.h"
#include "tools/notifymon_options.h"

/// Examines a run with these options, on the calling thread, for about 20 seconds per device at most and 30
/// more with --pick. The device has the run's entries on its panel meanwhile. Changes no settings, and leaves
/// a log as it is. True unless something failed, or the end was asked for.
bool RunDoctor(Options const &options, CEnding &ending);
