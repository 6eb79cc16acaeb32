#pragma once
/// @file
/// Events for programs: one is started for each event, and has it on its standard input.
#include "hub/settings.h"
#include "hub/sink.h"

#include <atomic>

/// Exit code 0 is taken. 65 (EX_DATAERR of sysexits) is refused: no retry would help. Anything else, a program that
/// cannot be started or that the time limit has ended, with all that it started, is tried again.
class CExecSink : public CHubSink {
public:
    explicit CExecSink(HubExecSettings settings);

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override;
    void Stop() override { m_bStopped = true; }

private:
    HubExecSettings const m_settings;
    std::vector<char const *> m_apsz; // into m_settings
    std::atomic<bool> m_bStopped{false};
};
