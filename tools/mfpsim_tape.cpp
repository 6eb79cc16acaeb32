#include "tools/mfpsim_tape.h"

#include "device/device_objects.h"
#include "devlink/link_protocol.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace {

using Json = nlohmann::json;

constexpr double kLongestTape = 1e10; // milliseconds, some months
constexpr unsigned kMostDevices = 1000;

struct KindName {
    BYTE kind;
    char const *pszName;
};
constexpr std::array kKindNames{
    KindName{eLK_HELLO, "hello"}, KindName{eLK_GET_DEVICE_ID, "get device id"},
    KindName{eLK_GET, "get"},     KindName{eLK_SET, "set"},
    KindName{eLK_TRAP, "trap"},   KindName{eLK_UNTRAP, "untrap"},
    KindName{eLK_PING, "ping"},   KindName{eLK_TRAP_VALUE, "trap value"},
};

// What is wrong with a line, for who knows its number.
class CTapeProblem : public std::runtime_error {
    using runtime_error::runtime_error;
};

template <class T>
T Field(Json const &line, char const *pszName, double dLeast, double dMost)
{
    auto const it = line.find(pszName);
    if (it == line.end()) {
        throw CTapeProblem(std::string("\"") + pszName + "\" is missing");
    }
    if (!it->is_number() || it->get<double>() < dLeast || it->get<double>() > dMost) {
        throw CTapeProblem(std::string("\"") + pszName + "\" is no such number");
    }
    return it->get<T>();
}

std::string Text(Json const &line, char const *pszName)
{
    auto const it = line.find(pszName);
    if (it == line.end() || !it->is_string()) {
        throw CTapeProblem(std::string("\"") + pszName + "\" is missing or no text");
    }
    return it->get<std::string>();
}

// One of two words.
bool IsFirst(Json const &line, char const *pszName, char const *pszFirst, char const *pszOther)
{
    std::string const str = Text(line, pszName);
    if (str != pszFirst && str != pszOther) {
        throw CTapeProblem(std::string("\"") + pszName + "\" is neither " + pszFirst + " nor " +
                           pszOther);
    }
    return str == pszFirst;
}

LinkBytes Payload(Json const &line)
{
    std::string const str = Text(line, "payload");
    LinkBytes bytes;
    for (std::size_t i = 0; i < str.size(); i += 2) {
        BYTE b = 0;
        char const *const p = str.data() + i;
        if (i + 2 > str.size() || std::from_chars(p, p + 2, b, 16).ptr != p + 2) {
            throw CTapeProblem("\"payload\" is not of pairs of hexadecimal digits");
        }
        bytes.push_back(b);
    }
    if (bytes.size() > kLinkMaxBody - 5) {
        throw CTapeProblem("\"payload\" is too long for a frame");
    }
    return bytes;
}

void ReadEvent(Json const &line, TapeItem *pItem)
{
    std::string const strEvent = Text(line, "event");
    if (strEvent == "up") {
        pItem->eKind = eTK_UP;
        pItem->fNetwork = IsFirst(line, "use", "network", "local");
        pItem->strAddress = Text(line, "address");
    } else if (strEvent == "down") {
        pItem->eKind = eTK_DOWN;
        pItem->fFromClient = IsFirst(line, "by", "client", "device");
    } else if (strEvent == "cut") {
        pItem->eKind = eTK_CUT;
        pItem->dwMilliseconds = Field<DWORD>(line, "ms", 0, 1e9);
    } else if (strEvent == "garbage") {
        pItem->eKind = eTK_GARBAGE;
    } else {
        throw CTapeProblem("there is no event \"" + strEvent + "\"");
    }
}

TapeItem ReadItem(Json const &line, unsigned cDevices)
{
    TapeItem item;
    item.dTime = Field<double>(line, "t", 0, kLongestTape);
    item.nDevice = Field<unsigned>(line, "device", 1, cDevices);
    if (line.contains("event")) {
        ReadEvent(line, &item);
    } else if (line.contains("kind")) {
        item.fFromClient = IsFirst(line, "from", "client", "device");
        item.frame = {Field<BYTE>(line, "kind", 0, 255),
                      Field<DWORD>(line, "number", 0, 4294967295.0), Payload(line)};
    } else {
        item.eKind = eTK_DATAGRAM;
        item.fFromClient = IsFirst(line, "from", "client", "device");
        item.strAddress = Text(line, "address");
        LinkBytes const bytes = Payload(line);
        item.strBytes.assign(bytes.begin(), bytes.end());
    }
    if (item.eKind == eTK_UP || item.eKind == eTK_DOWN || item.eKind == eTK_FRAME) {
        item.dwLink = Field<DWORD>(line, "link", 1, 4294967295.0);
    }
    return item;
}

void ReadHead(Json const &line, Tape *pTape)
{
    if (!line.contains("tape") || line.at("tape") != 1 ||
        Text(line, "program").rfind("mfpsim ", 0) != 0) {
        throw CTapeProblem("this is no tape of mfpsim, or one of a later version");
    }
    pTape->cDevices = Field<unsigned>(line, "devices", 1, kMostDevices);
    auto const masked = line.find("masked");
    pTape->fTextsMasked = masked != line.end() && masked->is_array() &&
                          std::find(masked->begin(), masked->end(), Json("texts")) != masked->end();
}

void ReadLine(std::string const &strLine, unsigned nLine, Tape *pTape)
{
    Json const line = Json::parse(strLine, nullptr, /*allow_exceptions=*/false);
    if (!line.is_object()) {
        throw CTapeProblem("this is no JSON object");
    }
    if (nLine == 1) {
        return ReadHead(line, pTape);
    }
    TapeItem item = ReadItem(line, pTape->cDevices);
    item.nLine = nLine;
    pTape->items.push_back(std::move(item));
}

} // namespace

bool ReadTape(std::string const &strFile, Tape *pTape, std::string *pstrError)
{
    pTape->strFile = strFile;
    std::ifstream in(strFile, std::ios::binary);
    if (!in) {
        *pstrError = "cannot read " + strFile;
        return false;
    }
    unsigned nLine = 0;
    try {
        for (std::string strLine; std::getline(in, strLine);) {
            ++nLine;
            if (in.eof() && nLine > 1) { // the disk was full, or the recorder was killed
                pTape->nBrokenOff = nLine;
                break;
            }
            ReadLine(strLine, nLine, pTape);
        }
        if (nLine == 0) {
            throw CTapeProblem("the tape is empty");
        }
    } catch (CTapeProblem const &problem) {
        *pstrError = strFile + ":" + std::to_string(std::max(nLine, 1u)) + ": " + problem.what();
        return false;
    }
    // A late answer stands where it was decided upon.
    std::stable_sort(pTape->items.begin(), pTape->items.end(),
                     [](auto const &a, auto const &b) { return a.dTime < b.dTime; });
    return true;
}

std::string TapeHex(LinkBytes const &bytes)
{
    static char const s_szDigits[] = "0123456789abcdef";
    std::string str;
    for (BYTE const b : bytes) {
        str += s_szDigits[b >> 4];
        str += s_szDigits[b & 15];
    }
    return str;
}

std::string FrameText(LinkFrame const &frame)
{
    auto const kind = static_cast<BYTE>(frame.kind & ~kLinkAnswerBit);
    std::string str = "kind " + std::to_string(kind);
    for (KindName const &name : kKindNames) {
        str = name.kind == kind ? name.pszName : str;
    }
    CLinkReader reader(frame.payload);
    if (kind != frame.kind) {
        return str + " answered " + std::to_string(reader.Word32());
    }
    if (kind < eLK_GET || kind > eLK_UNTRAP) {
        return str;
    }
    int const nRow = FindDeviceObject(reader.Bytes8());
    str += nRow < 0 ? " an unknown object" : std::string(" ") + g_deviceObjects[nRow].pszName;
    if (kind == eLK_SET && reader.Byte() == eLD_TEXT) {
        LinkBytes const value = reader.Bytes32();
        str += " " + std::string(value.begin(), value.end());
    }
    return str;
}
