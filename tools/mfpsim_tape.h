#pragma once
/// @file
/// A tape of mfpsim, read back (docs/tape.md).

#include "devlink/link_frame.h"

#include <optional>
#include <string>
#include <vector>

/// What a line of a tape tells.
enum TapeItemKind {
    eTK_UP,       ///< a link stands
    eTK_DOWN,     ///< and has ended
    eTK_CUT,      ///< all links are cut, and clients are turned away for a while
    eTK_GARBAGE,  ///< every client is sent bytes that mean nothing
    eTK_FRAME,    ///< a frame of a link
    eTK_DATAGRAM, ///< a datagram
};

/// One line of a tape.
struct TapeItem {
    TapeItemKind eKind = eTK_FRAME;
    unsigned nLine = 0;       ///< its number in the file
    double dTime = 0;         ///< milliseconds since the recording began
    unsigned nDevice = 1;     ///< at which it happened, counted from 1
    DWORD dwLink = 0;         ///< of a link: its number at that time
    bool fFromClient = false; ///< a frame, a datagram or an end; else it came from the device
    bool fNetwork = false;    ///< of a link that stands: one over a network
    std::string strAddress; ///< of a datagram's other end; of a link that stands: as the log has it
    LinkFrame frame;        ///< a frame
    std::string strBytes;   ///< a datagram
    DWORD dwMilliseconds = 0; ///< of a cut
};

/// A whole tape.
struct Tape {
    std::string strFile;
    unsigned cDevices = 1;
    bool fTextsMasked = false;   ///< users' texts are stand-ins
    unsigned nBrokenOff = 0;     ///< the number of a last line without an end; 0: none
    std::vector<TapeItem> items; ///< by their time
};

/// Reads the file. False with the reason, "FILE:LINE: ..." if a line is at fault.
bool ReadTape(std::string const &strFile, Tape *pTape, std::string *pstrError);

/// Two digits for each byte.
std::string TapeHex(LinkBytes const &bytes);

/// A frame in words, such as "set UI-ADD-OPTION Paper Archive;", for a person.
std::string FrameText(LinkFrame const &frame);
