#pragma once
/// @file
/// What "expect" and "expect-no" take: something that happens at a device, or is so, within a time.

#include "tools/mfpsim_trail.h"

#include <string>
#include <vector>

/// Milliseconds of "250", "250ms" or "1.5s". False for anything else, or above a day.
bool ParseTime(std::string const &str, unsigned *pnMilliseconds);

/// What is expected.
struct Expectation {
    enum Kind {
        eENTRY,        ///< an entry holds strText in any case, and its client hears picks
        eGONE,         ///< no entry holds it
        eLINK,         ///< a client is connected
        eSUBSCRIPTION, ///< a client has registered for the object strText
        eEVENT,        ///< an event of the name strText, with these fields
    };
    Kind eKind = eEVENT;
    std::string strText;                                     ///< see there
    std::vector<std::pair<std::string, std::string>> fields; ///< of an event: name and text
    std::string strClaimer; ///< a link's number, or the address text of a local one; empty for any
    unsigned nWithinMs = 2000; ///< from the last command that did something
};

/// Reads "WHAT [within TIME]". False with the reason in one line.
bool ParseExpectation(std::vector<std::string> const &words, Expectation *pExpectation,
                      std::string *pstrError);

/// Waits until it is so. False when the time is up first.
bool Meets(Expectation const &expectation, CSoftDevice &device, std::size_t nDevice,
           CEventTrail const &trail);

/// What can be expected, a line each, for the list of commands.
std::vector<std::string> ExpectationHelp();
