#pragma once
/// @file
/// The commands of mfpsim. Whoever has one to give, the terminal, a script, a caller of the control socket,
/// holds a session, gives it a line at a time, and gets the answer back.

#include "device/soft_device.h"
#include "platform/lock.h"
#include "tools/mfpsim_trail.h"

#include <condition_variable>
#include <string>
#include <string_view>
#include <vector>

/// What all sessions share: the devices, and the wish to end. Every function from any thread, but not from
/// a signal handler.
class CSimulation {
public:
    /// One device at least; they have to outlive it.
    explicit CSimulation(std::vector<CSoftDevice *> devices) : m_devices(std::move(devices)) {}

    std::size_t Count() const { return m_devices.size(); } ///< devices
    /// One of them, counted from 1; started by whoever made it.
    CSoftDevice &Device(std::size_t nDevice) { return *m_devices[nDevice - 1]; }

    /// Ends all waiting, here and in the sessions.
    void Quit();
    bool IsQuitting() const;  ///< Quit has been called
    void WaitForQuit() const; ///< returns at once after Quit
    /// @{
    /// Waits until then, or for so many milliseconds, or until Quit.
    void SleepUntil(LinkTime time) const;
    void Sleep(unsigned nMilliseconds) const
    {
        SleepUntil(LinkClock::now() + std::chrono::milliseconds(nMilliseconds));
    }
    /// @}

    /// What has happened since the last command that did something. Whoever made the devices lets it hear.
    CEventTrail &Trail() { return m_trail; }

private:
    std::vector<CSoftDevice *> const m_devices;
    CEventTrail m_trail;
    mutable CPlatMutex m_mx; // before that of the trail
    mutable std::condition_variable m_cv;
    bool m_fQuit PLAT_GUARDED_BY(m_mx) = false;
};

/// What became of a command.
struct CommandResult {
    bool fDone = true;
    std::string strError;           ///< why not, in one line without "error"
    std::vector<std::string> lines; ///< what was asked for; in it the clients' texts as they came
    std::size_t cDone = 0;          ///< devices that have done it
    std::size_t cOf = 0;            ///< devices that were told
    bool fQuit = false; ///< the program is to end, by CSimulation::Quit once this has been answered
};

/// Cuts a line into words at its blanks. A word that begins with a double quote goes to the next one and
/// holds what is between them; one that begins with # and all behind it are a comment. False when a quote
/// is not closed.
bool SplitCommand(std::string_view strLine, std::vector<std::string> *pWords);

/// One source's commands. One thread at a time.
class CCommandSession {
public:
    /// The simulation has to outlive it.
    explicit CCommandSession(CSimulation &simulation) : m_simulation(simulation) {}

    /// Carries out one line. It is for device 1 unless it begins with another's number, or with "all". A blank one and a comment do nothing. "wait", "wait-entry" and "quit" take
    /// their time, until CSimulation::Quit at the longest.
    CommandResult Execute(std::string const &strLine);

    /// What the beginning of a line, up to the cursor, may be continued to: whole beginnings, sorted.
    std::vector<std::string> Complete(std::string const &strBefore) const;

    /// The list of commands, a line each.
    static std::vector<std::string> Help();

private:
    struct Command;
    using Words = std::vector<std::string>;
    static Command const g_commands[];
    static Command const *Find(std::string const &strName);

    CommandResult ShowPanel(Words const &words);
    CommandResult ShowStatus(Words const &words);
    CommandResult Pick(Words const &words);
    CommandResult Feeder(Words const &words);
    CommandResult Button(Words const &words);
    CommandResult Fax(Words const &words);
    CommandResult Cut(Words const &words);
    CommandResult Late(Words const &words);
    CommandResult Mute(Words const &words);
    CommandResult Garbage(Words const &words);
    CommandResult Wait(Words const &words);
    CommandResult WaitEntry(Words const &words);
    CommandResult Expect(Words const &words);
    CommandResult ExpectNot(Words const &words);
    CommandResult ShowHelp(Words const &words);
    CommandResult Quit(Words const &words);

    /// The commands that only take a number to a function of the device.
    template <void (CSoftDevice::*pfn)(unsigned)>
    CommandResult Count(Words const &words);

    CommandResult ExecuteForAll(Command const &command, Words const &words);
    CSoftDevice &Device() const { return m_simulation.Device(m_nDevice); }

    CSimulation &m_simulation;
    std::size_t m_nDevice = 1; // that the line in hand is for
};
