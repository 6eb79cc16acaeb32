#include "tools/mfpsim_record.h"

#include "device/device_objects.h"
#include "devlink/link_protocol.h"
#include "tools/mfpsim_tape.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// The bytes of an answer that makes no sense.
LinkBytes const kGarbled{0xFF, 0x01, 0x80};

std::string TextOf(LinkBytes const &bytes)
{
    return {bytes.begin(), bytes.end()};
}

LinkBytes BytesOf(std::string const &str)
{
    return {str.begin(), str.end()};
}

std::uint64_t NumberOf(DeviceEvent const &event, std::string_view strName)
{
    for (DeviceEventField const &field : event.fields) {
        if (field.pszName == strName) {
            return std::get<std::uint64_t>(field.value);
        }
    }
    return 0;
}

std::string TextOf(DeviceEvent const &event, std::string_view strName)
{
    for (DeviceEventField const &field : event.fields) {
        if (field.pszName == strName) {
            return std::get<std::string>(field.value);
        }
    }
    return {};
}

// What cannot be taken apart may hold anything: its length is all that is told.
LinkBytes Blank(LinkBytes const &payload)
{
    return LinkBytes(payload.size(), 0);
}

} // namespace

bool CTapeRecorder::Start(std::string const &strFile, unsigned cDevices, std::string *pstrError)
{
    return m_file.Open(strFile, "mfpsim " QOMA_VERSION, cDevices, m_parts, pstrError);
}

void CTapeRecorder::Event(std::size_t nDevice, DeviceEvent const &event)
{
    CPlatGuard const lock(m_mx);
    Json line{{"device", nDevice}};
    std::uint64_t const link = NumberOf(event, "link");
    switch (event.eKind) {
    case eEV_LINK_UP:
        line.update({{"link", link},
                     {"event", "up"},
                     {"use", TextOf(event, "use")},
                     {"address", m_mask.Address(TextOf(event, "address"))}});
        break;
    case eEV_LINK_DOWN:
        m_asked.erase({nDevice, static_cast<DWORD>(link)});
        if (NumberOf(event, "finished") != 0) {
            return; // the end of the recording, and not of what there is to tell
        }
        line.update({{"link", link},
                     {"event", "down"},
                     {"by", TextOf(event, "reason") == "closed" ? "client" : "device"}});
        break;
    case eEV_CUT:
        line.update({{"event", "cut"}, {"ms", NumberOf(event, "ms")}});
        break;
    case eEV_GARBAGE:
        line["event"] = "garbage";
        break;
    default:
        return; // shows in frames and datagrams
    }
    m_file.Write(line);
}

void CTapeRecorder::Frame(std::size_t nDevice, DeviceFrame const &frame)
{
    if (frame.eFate == eFF_MUTE) {
        return; // it never went
    }
    CPlatGuard const lock(m_mx);
    Link const link{nDevice, frame.dwLink};
    LinkBytes const payload = Masked(link, frame);
    auto &asked = m_asked[link];
    if (frame.fFromClient) {
        asked[frame.frame.dwNumber] = frame.frame;
    } else {
        asked.erase(frame.frame.dwNumber);
    }
    m_file.Write({{"device", nDevice},
                  {"link", frame.dwLink},
                  {"from", frame.fFromClient ? "client" : "device"},
                  {"kind", frame.frame.kind},
                  {"number", frame.frame.dwNumber},
                  {"payload", TapeHex(payload)},
                  {"what", FrameText({frame.frame.kind, frame.frame.dwNumber, payload})}},
                 std::chrono::milliseconds(frame.dwLateMs));
}

void CTapeRecorder::Datagram(std::size_t nDevice, DeviceDatagram const &datagram)
{
    CPlatGuard const lock(m_mx);
    std::string const strBytes = m_mask.Option(datagram.strBytes);
    m_file.Write({{"device", nDevice},
                  {"from", datagram.fFromClient ? "client" : "device"},
                  {"address", m_mask.Address(datagram.strPeer)},
                  {"payload", TapeHex(BytesOf(strBytes))},
                  {"what", strBytes}});
}

LinkBytes CTapeRecorder::Masked(Link const &link, DeviceFrame const &frame)
{
    if (frame.eFate == eFF_GARBLED) {
        return kGarbled;
    }
    if (!m_parts.fAddresses && !m_parts.fNames && !m_parts.fTexts) {
        return frame.frame.payload;
    }
    if (frame.fFromClient) {
        return MaskedRequest(frame.frame);
    }
    if (frame.frame.kind == eLK_TRAP_VALUE) {
        return MaskedTrap(frame.frame);
    }
    auto const &asked = m_asked[link];
    auto const it = asked.find(frame.frame.dwNumber);
    return it == asked.end() ? Blank(frame.frame.payload) : MaskedAnswer(it->second, frame.frame);
}

LinkBytes CTapeRecorder::MaskedRequest(LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    CLinkWriter writer;
    if (frame.kind == eLK_HELLO) {
        writer.Word32(reader.Word32()).Word16(reader.Word16()).Byte(reader.Byte());
        std::string const strWanted = m_mask.Host(reader.Text8());
        writer.Bytes8(strWanted.data(), strWanted.size());
    } else if (frame.kind == eLK_SET) {
        LinkBytes const oid = reader.Bytes8();
        BYTE const dataType = reader.Byte();
        LinkBytes const value = MaskedValue(FindDeviceObject(oid), reader.Bytes32());
        writer.Bytes8(oid.data(), oid.size()).Byte(dataType).Bytes32(value.data(), value.size());
    } else if (frame.kind == eLK_GET || frame.kind == eLK_TRAP || frame.kind == eLK_UNTRAP) {
        return reader.Bytes8().size() <= kLinkMaxOid && frame.payload.size() <= kLinkMaxOid + 4
                   ? frame.payload
                   : Blank(frame.payload);
    } else {
        return Blank(frame.payload);
    }
    return reader.IsComplete() ? writer.Take() : Blank(frame.payload);
}

LinkBytes CTapeRecorder::MaskedAnswer(LinkFrame const &request, LinkFrame const &answer)
{
    CLinkReader reader(answer.payload);
    CLinkWriter writer;
    DWORD const dwResult = reader.Word32();
    writer.Word32(dwResult);
    if (request.kind == eLK_HELLO && dwResult == eLR_OK) {
        writer.Word16(reader.Word16());
        std::string const strAddress = m_mask.Host(reader.Text8());
        writer.Bytes8(strAddress.data(), strAddress.size());
    } else if (request.kind == eLK_GET && dwResult == eLR_OK) {
        CLinkReader object(request.payload);
        LinkBytes const value = MaskedValue(FindDeviceObject(object.Bytes8()), reader.Bytes32());
        writer.Bytes32(value.data(), value.size());
    } else {
        return answer.payload; // the identification, which has to be the device's own, or a result
    }
    return reader.IsComplete() ? writer.Take() : Blank(answer.payload);
}

LinkBytes CTapeRecorder::MaskedTrap(LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    CLinkWriter writer;
    writer.Word16(reader.Word16());
    BYTE const dataType = reader.Byte();
    LinkBytes value = reader.Bytes32();
    if (dataType == eLD_TEXT || dataType == eLD_BINARY) {
        value = MaskedValue(dataType == eLD_TEXT ? eDO_UI_SELECT_OPTION : eDO_SCAN_TOKEN, value);
    }
    writer.Byte(dataType).Bytes32(value.data(), value.size());
    return reader.IsComplete() ? writer.Take() : Blank(frame.payload);
}

LinkBytes CTapeRecorder::MaskedValue(int nRow, LinkBytes const &value)
{
    switch (nRow) {
    case eDO_UI_ADD_OPTION:
    case eDO_UI_SELECT_OPTION:
    case eDO_UI_DELETE_OPTION:
        return BytesOf(m_mask.Option(TextOf(value)));
    case eDO_SERIAL_NUMBER:
        return BytesOf(m_mask.Name("SERIAL", TextOf(value)));
    case eDO_SCAN_TOKEN:
        return BytesOf(m_mask.Token(TextOf(value)));
    case -1:
        return Blank(value);
    default:
        return value; // a word
    }
}
