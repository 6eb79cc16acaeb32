#pragma once
/*
 * The front panel of mfpsim: commands, one a line, from the terminal and from a script.
 */
#include "device/soft_device.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

class CPanelCommands {
public:
    using PrintFn = std::function<void(std::string const &)>; // one line; any thread

    CPanelCommands(CSoftDevice &device, PrintFn print) : m_device(device), m_print(std::move(print))
    {
    }

    // Carries out one line; blank ones and those that begin with # do nothing. False with the reason
    // in one line if it could not be done. "wait" and "wait-entry" take their time, until Quit.
    bool Execute(std::string const &strLine, std::string *pstrError);

    // Ends all waiting, here and in Execute. From any thread, but not from a signal handler.
    void Quit();
    bool IsQuitting() const;
    void WaitForQuit() const;

    static std::vector<std::string> Help();

private:
    struct Command;
    using Words = std::vector<std::string>;
    static Command const g_commands[];

    bool ShowPanel(Words const &words, std::string *pstrError);
    bool Pick(Words const &words, std::string *pstrError);
    bool Feeder(Words const &words, std::string *pstrError);
    bool Button(Words const &words, std::string *pstrError);
    bool Fax(Words const &words, std::string *pstrError);
    bool Cut(Words const &words, std::string *pstrError);
    bool Drop(Words const &words, std::string *pstrError);
    bool Repeat(Words const &words, std::string *pstrError);
    bool Reorder(Words const &words, std::string *pstrError);
    bool LoseEcho(Words const &words, std::string *pstrError);
    bool RefuseClaim(Words const &words, std::string *pstrError);
    bool Late(Words const &words, std::string *pstrError);
    bool Mute(Words const &words, std::string *pstrError);
    bool Garbage(Words const &words, std::string *pstrError);
    bool Garble(Words const &words, std::string *pstrError);
    bool Wait(Words const &words, std::string *pstrError);
    bool WaitEntry(Words const &words, std::string *pstrError);
    bool ShowHelp(Words const &words, std::string *pstrError);
    bool DoQuit(Words const &words, std::string *pstrError);

    bool PickEntry(size_t nEntry, std::string *pstrError);
    bool CountFor(void (CSoftDevice::*pfn)(unsigned), Words const &words, std::string *pstrError);

    CSoftDevice &m_device;
    PrintFn m_print;
    mutable std::mutex m_mx; // guards m_fQuit
    mutable std::condition_variable m_cv;
    bool m_fQuit = false;
};
