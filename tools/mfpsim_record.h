#pragma once
/// @file
/// What mfpsim --record writes: the frames, the datagrams and the links of its devices (docs/tape.md).

#include "device/soft_device.h"
#include "tools/tape_file.h"

#include <map>
#include <string>
#include <utility>

/// A recording. Every function from any thread, devices' callbacks under their locks among them.
class CTapeRecorder {
public:
    explicit CTapeRecorder(TapeMaskParts const &parts) : m_parts(parts), m_mask(parts) {}

    /// Begins. False with the reason.
    bool Start(std::string const &strFile, unsigned cDevices, std::string *pstrError);

    /// @{
    /// Something has happened at that device, counted from 1.
    void Event(std::size_t nDevice, DeviceEvent const &event);
    void Frame(std::size_t nDevice, DeviceFrame const &frame);
    void Datagram(std::size_t nDevice, DeviceDatagram const &datagram);
    /// @}

private:
    using Link = std::pair<std::size_t, DWORD>; // device and number

    LinkBytes Masked(Link const &link, DeviceFrame const &frame) PLAT_REQUIRES(m_mx);
    LinkBytes MaskedRequest(LinkFrame const &frame) PLAT_REQUIRES(m_mx);
    LinkBytes MaskedAnswer(LinkFrame const &request, LinkFrame const &answer) PLAT_REQUIRES(m_mx);
    LinkBytes MaskedTrap(LinkFrame const &frame) PLAT_REQUIRES(m_mx);
    LinkBytes MaskedValue(int nRow, LinkBytes const &value) PLAT_REQUIRES(m_mx);

    TapeMaskParts const m_parts;
    CTapeFile m_file;
    CPlatMutex m_mx; // before the file's
    CTapeMask m_mask PLAT_GUARDED_BY(m_mx);
    std::map<Link, std::map<DWORD, LinkFrame>>
        m_asked PLAT_GUARDED_BY(m_mx); // what an answer answers
};
