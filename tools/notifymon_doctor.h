#pragma once
/*
 * notifymon doctor: why do notifications not come? Looks at everything on their way, one after the
 * other, and prints a line for each finding, with what to do where it is not well.
 */
#include "tools/notifymon_client.h"

#include <string>

struct DoctorOptions {
    MonitorOptions monitor;     /* which device; what it says about subscriptions is not used */
    std::string strRegistry;    /* the settings file, or empty for the usual one */
    std::string strDiagnostics; /* the module's name in the settings, or empty */
    std::string strDiscover;    /* a discovery target for the test of the whole road, or empty */
};

/*
 * Runs on the calling thread, for about 20 seconds at most. The device has an entry of ours on its panel
 * meanwhile. Changes no settings, and leaves a log as it is. True unless something failed.
 */
bool RunDoctor(DoctorOptions const &options);
