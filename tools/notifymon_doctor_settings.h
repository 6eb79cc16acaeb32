#pragma once
/// @file
/// notifymon doctor: the settings, where they come from, and whether log and viewer can be had.
#include "tools/notifymon_findings.h"
#include "tools/notifymon_options.h"

/// Examines what a run with these options would read. Changes nothing.
void ExamineSettings(Options const &options, CFindings &findings);
