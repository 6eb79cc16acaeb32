// Clients that send any bytes to the software device. Every whole frame after a good hello is answered once,
// in order, under its number; whatever they have done, the device forgets it when they hang up, and its
// datagrams fit.
// Input: steps of 1 byte. A client's is followed by bytes to send (length in 2 bytes), the others are what a
// person does at the panel.

#include "device/kick_sender.h"
#include "device/soft_device.h"
#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "fuzz/fuzz_input.h"

namespace {

constexpr std::chrono::seconds kPatience{5};

// A client's connection, and what it has to hear.
class CAnyClient {
public:
    explicit CAnyClient(WORD wPort)
    {
        Must(m_stream.Connect({0x7F000001, wPort}, LinkClock::now() + kPatience) == 0,
             "the device takes a client");
    }

    // Sends, and waits for the answers to all that is whole by now.
    void Send(std::string const &strBytes)
    {
        LinkBytes const bytes(strBytes.begin(), strBytes.end());
        if (m_bEnded || m_decoder.IsGarbage()) {
            return;
        }
        bool const bSent = m_stream.Send(bytes, LinkClock::now() + kPatience);
        m_decoder.Feed(bytes.data(), bytes.size());
        std::vector<LinkFrame> frames;
        for (LinkFrame frame; m_decoder.Next(&frame);) {
            frames.push_back(frame);
        }
        for (LinkFrame const &frame : frames) {
            // Behind garbage the device hangs up at once, and answers may be lost.
            if (!m_bEnded && !HearAnswer(frame) && !m_decoder.IsGarbage()) {
                Must(!m_bHello, "a frame is answered");
                m_bEnded = true;
            }
        }
        Must(bSent || m_bEnded || m_decoder.IsGarbage(), "a good client is kept");
    }

    // The device hangs up in return.
    ~CAnyClient()
    {
        m_stream.FinishSending();
        LinkFrame frame;
        LinkReceive eReceive;
        while ((eReceive = m_stream.Receive(&frame, LinkClock::now() + kPatience)) == eRX_FRAME) {
            Must(frame.kind == eLK_TRAP_VALUE || m_bEnded || m_decoder.IsGarbage(),
                 "no second answer");
        }
        Must(eReceive == eRX_CLOSED, "the device hangs up");
    }

private:
    // False when the device hangs up instead.
    bool HearAnswer(LinkFrame const &request)
    {
        LinkFrame frame;
        LinkReceive eReceive;
        while ((eReceive = m_stream.Receive(&frame, LinkClock::now() + kPatience)) == eRX_FRAME &&
               frame.kind == eLK_TRAP_VALUE) {
        }
        Must(eReceive == eRX_FRAME || eReceive == eRX_CLOSED, "the device says something");
        if (eReceive == eRX_CLOSED) {
            return false;
        }
        CLinkReader reader(frame.payload);
        DWORD const dwResult = reader.Word32();
        Must(frame.kind == (request.kind | kLinkAnswerBit) && frame.dwNumber == request.dwNumber &&
                 reader.IsGood(),
             "an answer is the answer to the request");
        m_bHello = m_bHello || (dwResult == eLR_OK && request.payload[6] != eLU_PROBE);
        m_bEnded = !m_bHello;
        return true;
    }

    CLinkStream m_stream;
    CLinkDecoder m_decoder; // of what it has sent
    bool m_bHello = false;  // a good one was answered
    bool m_bEnded = false;  // the device has had enough
};

CSoftDevice &Device()
{
    static CSoftDevice *const s_pDevice = [] {
        SoftDeviceConfig config;
        config.dwKickIntervalMs = 1;
        config.cKickTries = 2;
        auto *const pDevice = new CSoftDevice(config);
        std::string strError;
        Must(pDevice->Start(&strError), "the device starts");
        return pDevice;
    }();
    return *s_pDevice;
}

void DoAtPanel(CSoftDevice &device, unsigned nWhat)
{
    switch (nWhat % 4) {
    case 0:
        device.PressButton();
        break;
    case 1:
        device.AnnounceFax();
        break;
    case 2:
        device.SetFeeder(nWhat % 8 == 2);
        break;
    default:
        device.Pick(nWhat / 4);
    }
}

} // namespace

// By the name that the linker knows it under: what the device sends goes nowhere.
extern "C" int __wrap__ZN2ws6sendtoEmPKciiPK8sockaddri(SOCKET, char const *, int cb, int,
                                                       sockaddr const *, int)
{
    Must(cb > 0 && static_cast<std::size_t>(cb) <= CKickSender::kMaxDatagram, "a datagram fits");
    return cb;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    CSoftDevice &device = Device();
    CFuzzInput input(pData, cbData);
    {
        CAnyClient clients[] = {CAnyClient(device.Port()), CAnyClient(device.Port())};
        while (!input.IsEmpty()) {
            unsigned const nStep = input.Byte();
            if (nStep < 0x80) {
                clients[nStep % 2].Send(input.Chunk());
            } else {
                DoAtPanel(device, nStep - 0x80);
            }
        }
    }
    Must(device.Panel().empty(), "what a client placed goes with it");
    return 0;
}
