#pragma once

// What notifymon --record writes: what this client has heard (docs/tape.md).

#include "session/session_event.h"
#include "tools/tape_file.h"

/// A recording. One thread.
class CHeardTape {
public:
    explicit CHeardTape(TapeMaskParts const &parts) : m_parts(parts), m_mask(parts) {}

    /// Begins. False with the reason.
    bool Start(std::string const &strFile, std::string *pstrError);

    /// Writes an event, if there was a Start.
    void Write(SessionEvent const &event);

private:
    void Mask(Notification &notification);
    void Mask(LinkChange &change);
    void Mask(DroppedEvents &) {}

    TapeMaskParts const m_parts;
    CTapeMask m_mask;
    CTapeFile m_file;
    bool m_fOn = false;
};
