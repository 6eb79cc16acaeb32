#pragma once
/// @file
/// What mfpsim prints: what happens at the device and what its commands answer, each line whole and at once.

#include "device/device_event.h"
#include "platform/lineedit.h"
#include "platform/lock.h"
#include "tools/mfpsim_commands.h"

#include <string>

/// Lines on their way to the standard output, or above the prompt of the terminal. Clients' texts are made
/// fit for a terminal here. Any thread.
class CSimOutput {
public:
    /// With fJson everything is a JSON object a line, with fStamps each event has the time of day in front.
    CSimOutput(CPlatLineEditor &editor, bool fJson, bool fStamps)
        : m_editor(editor), m_fJson(fJson), m_fStamps(fStamps)
    {
    }

    /// Something has happened; nDevice is 0 where there is only one.
    void Event(DeviceEvent const &event, std::size_t nDevice = 0);
    void Tell(std::string const &strText);    ///< the program's own word to who sits before it
    void Answer(CommandResult const &result); ///< to a command of the terminal or a script

private:
    void Print(std::string const &strLine) PLAT_REQUIRES(m_mx);
    void PrintText(char const *pszKind, std::string const &strText);

    CPlatLineEditor &m_editor;
    bool const m_fJson;
    bool const m_fStamps;
    CPlatMutex m_mx; // held while a line is printed; after the device's lock
};
