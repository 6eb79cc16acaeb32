// A device that sends any bytes to the access library. Every operation ends with a code that the library
// promises, never with the one that ends a drain; each well-formed trap is read once, in order, cut to the
// buffer; a text is ended and fits.
// Input: the kind of link (1 byte), what the device sends on hello, then requests (1 byte each) with what it
// sends when that has come. All that is sent has its length before it, in 2 bytes.

#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "dolrtl/QOMADolC.h"
#include "fuzz/fuzz_input.h"

#include <cstring>
#include <mutex>
#include <set>
#include <thread>

namespace {

constexpr std::size_t kcbBuffer = 64;

// Accepts on a thread of its own and plays one script after the other. What does not answer ends the
// link, so that nothing waits for an answer that is not in the script.
class CScriptedDevice {
public:
    CScriptedDevice() : m_listener(ws::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in sa = ToSockAddr({0x7F000001, 0});
        auto *const pAddress = reinterpret_cast<sockaddr *>(&sa);
        int cb = sizeof sa;
        Must(ws::bind(m_listener.Get(), pAddress, cb) == 0 &&
                 ws::listen(m_listener.Get(), 8) == 0 &&
                 ws::getsockname(m_listener.Get(), pAddress, &cb) == 0,
             "the scripted device listens");
        m_wPort = FromSockAddr(sa).wPort;
        std::thread([this] {
            for (;;) {
                Serve(ws::accept(m_listener.Get(), nullptr, nullptr));
            }
        }).detach();
    }

    // What it sends: on the hello, then on each request.
    void SetScript(std::vector<std::string> script)
    {
        std::lock_guard const lock(m_mx);
        m_script = std::move(script);
        m_sent.clear();
    }
    std::vector<LinkFrame> Sent() // all that were whole
    {
        std::lock_guard const lock(m_mx);
        return m_sent;
    }
    WORD Port() const { return m_wPort; }

private:
    void Serve(SOCKET s)
    {
        CLinkStream stream(s);
        LinkTime const deadline = LinkClock::now() + std::chrono::seconds(5);
        LinkFrame request;
        if (stream.Receive(&request, deadline) != eRX_FRAME || request.payload.size() < 7 ||
            request.payload[6] == eLU_PROBE) { // the library looks whether we are there again
            return;
        }
        CLinkDecoder decoder;
        std::lock_guard const lock(m_mx);
        for (std::string const &strBytes : m_script) {
            bool const bAnswered = Send(stream, strBytes, decoder, request.dwNumber);
            if (!bAnswered || stream.Receive(&request, deadline) != eRX_FRAME) {
                break;
            }
        }
        stream.FinishSending();
        while (stream.Receive(&request, deadline) == eRX_FRAME) {
        }
    }

    // Whether a request of that number is answered by it.
    bool Send(CLinkStream &stream, std::string const &strBytes, CLinkDecoder &decoder,
              DWORD dwNumber)
    {
        LinkBytes const bytes(strBytes.begin(), strBytes.end());
        stream.Send(bytes, LinkClock::now() + std::chrono::seconds(5));
        decoder.Feed(bytes.data(), bytes.size());
        bool bAnswered = false;
        for (LinkFrame frame; decoder.Next(&frame);) {
            bAnswered |=
                m_sent.empty() || (frame.dwNumber == dwNumber && (frame.kind & kLinkAnswerBit));
            m_sent.push_back(std::move(frame));
        }
        return bAnswered;
    }

    CSocketLibrary m_library;
    CLinkSocket m_listener;
    WORD m_wPort = 0;
    std::mutex m_mx; // held while a script is played; guards what follows
    std::vector<std::string> m_script;
    std::vector<LinkFrame> m_sent;
};

DWORD Ask(CDolRtl &library, unsigned nWhat)
{
    unsigned char oid[] = {1, 2, 2, 1, 38};
    unsigned char abBuffer[kcbBuffer + 1];
    abBuffer[kcbBuffer] = 0xEE;
    DWORD cb = 0;
    DWORD dwResult = 0;
    switch (nWhat % 5) {
    case 0:
        dwResult = library.GetDeviceId(abBuffer, kcbBuffer, &cb);
        Must(cb < kcbBuffer && (dwResult == 0 ? abBuffer[cb] == 0 : cb == 0), "a text is ended");
        break;
    case 1:
        dwResult = library.Get(oid, sizeof oid, 4);
        break;
    case 2:
        dwResult = library.Set(oid, sizeof oid, 4, abBuffer, 4);
        break;
    case 3:
        dwResult = library.Trap(oid, sizeof oid, 4, 1);
        break;
    default:
        dwResult = library.UnTrap(oid, sizeof oid);
    }
    Must(abBuffer[kcbBuffer] == 0xEE, "nothing behind the buffer is written");
    static std::set<DWORD> const s_codes = {0,   5,    13,   24,   31,   87,
                                            170, 1168, 1236, 1306, 1629, 1816};
    Must(s_codes.contains(dwResult), "a promised code");
    return dwResult;
}

std::string TrapText(WORD wTrapId, BYTE dataType, std::string strValue)
{
    strValue.resize(std::min(strValue.size(), kcbBuffer));
    return std::to_string(wTrapId) + " " + std::to_string(dataType) + " " + strValue;
}

std::vector<std::string> Drain(CDolRtl &library)
{
    std::vector<std::string> traps;
    unsigned char abBuffer[kcbBuffer];
    DWORD cb = 0;
    BYTE dataType = 0;
    unsigned short wTrapId = 0;
    while (library.ReadTrap(abBuffer, kcbBuffer, &cb, &dataType, &wTrapId) == 0) {
        Must(cb <= kcbBuffer, "a value is cut to the buffer");
        traps.push_back(TrapText(wTrapId, dataType, std::string(abBuffer, abBuffer + cb)));
    }
    return traps;
}

std::vector<std::string> ExpectedTraps(std::vector<LinkFrame> const &frames)
{
    std::vector<std::string> traps;
    for (std::size_t n = 1; n < frames.size(); ++n) { // the first is the answer to the hello
        CLinkReader reader(frames[n].payload);
        WORD const wTrapId = reader.Word16();
        BYTE const dataType = reader.Byte();
        LinkBytes const value = reader.Bytes32();
        if (frames[n].kind == eLK_TRAP_VALUE && reader.IsComplete()) {
            traps.push_back(TrapText(wTrapId, dataType, std::string(value.begin(), value.end())));
        }
    }
    return traps;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    static CScriptedDevice *const s_pDevice = new CScriptedDevice;
    CFuzzInput input(pData, cbData);
    DWORD const dwTransport = input.Byte() % 2 == 0 ? eLT_LOCAL : eLT_NETWORK;
    std::vector<unsigned> requests;
    std::vector<std::string> script{input.Chunk()};
    while (!input.IsEmpty()) {
        requests.push_back(input.Byte());
        script.push_back(input.Chunk());
    }
    s_pDevice->SetScript(std::move(script));
    {
        CDolRtl library([](DWORD, DWORD_PTR) -> DWORD { return 0; }, 0);
        bool const bUp = library.Init("127.0.0.1", s_pDevice->Port(), dwTransport) == 0;
        for (unsigned const nWhat : requests) {
            Ask(library, nWhat);
        }
        // The script is at its end: all frames have been taken once this fails.
        Must(Ask(library, 1) == eDR_LINK_LOST || bUp, "a link that never was answers nothing");
        while (bUp && Ask(library, 1) != eDR_LINK_LOST) {
        }
        Must(std::strlen(library.GetAddress()) < 256, "the address is a text");
        std::vector<std::string> const traps = Drain(library);
        Must(traps == (bUp ? ExpectedTraps(s_pDevice->Sent()) : std::vector<std::string>()),
             "each trap is read once, in order");
    }
    return 0;
}
