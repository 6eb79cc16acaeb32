#pragma once
/// @file
/// CSoftDevice: a multifunction peripheral in software.
///
/// Clients reach it by the device link (docs/device-link.md). It has the eight objects, a panel whose
/// entries clients write, trap registrations per client, the scan token that one client at a time can
/// hold, datagrams that it sends until their echo comes, and a print path that answers discovery jobs.
/// What a person does at its front panel are calls here, and so is its misbehaviour.
///
/// mfpsim runs one as a process, tests run it inside theirs. Every function may be called by any thread
/// between Start and Stop, but not from the event function.
///
/// A link's panel entries, registrations and token end with the link, over a network as well: a client
/// that comes back writes them anew, with new numbers, and the old ones would only pile up.
#include "device/device_event.h"
#include "device/device_loop.h"
#include "device/device_model.h"
#include "device/kick_sender.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// An answer, and how long after its request it goes.
struct DeviceReply {
    LinkFrame frame;                    ///< as it goes
    std::chrono::milliseconds delay{0}; ///< from now
};

/// What the device is to be.
struct SoftDeviceConfig {
    std::string strModel = "VELLUMAX 4000"; ///< of the identification text
    std::string strSerial = "VX4-000001";   ///< serial number, 1 to 32 bytes
    std::string strListen = "127.0.0.1";    ///< dotted address to listen at
    WORD wPort = 0;                         ///< TCP, 0 for any that is free
    std::string strPrintPath;               ///< empty for none
    std::shared_ptr<CDeviceLoop>
        pLoop;                    ///< started, shared by many devices; none for one of its own
    DWORD dwKickIntervalMs = 500; ///< between two tries of one datagram
    DWORD cKickTries = 10;        ///< of one datagram, the first one included
    /// Hears of everything that happens. Called under the device's lock.
    std::function<void(DeviceEvent const &)> onEvent;
    /// @{
    /// Hear of each frame and of each datagram, if they are set. Under the device's lock, too.
    std::function<void(DeviceFrame const &)> onFrame;
    std::function<void(DeviceDatagram const &)> onDatagram;
    /// @}
    /// Answers all requests of the link of that number in the device's place, if it is set; nothing is no
    /// answer. Under the device's lock, too.
    std::function<std::optional<DeviceReply>(DWORD dwLink, LinkFrame const &request)> onRequest;
};

/// A link that stands.
struct LinkStatus {
    ClientId id = 0;                   ///< its number
    bool fNetwork = false;             ///< else it is a local one
    std::string strAddress;            ///< host and port, or the address text of a local link
    std::size_t cEntries = 0;          ///< on the panel
    std::vector<char const *> objects; ///< names of those that its client has registered for
};

/// The misbehaviour that is still to come.
struct DeviceHabits {
    KickCounts kicks;           ///< of datagrams
    unsigned cRefuseClaims = 0; ///< so many claims of the scan token
    unsigned cGarble = 0;       ///< so many answers
    DWORD dwLateMs = 0;         ///< of every answer
    bool fMute = false;         ///< no answers at all
};

/// What a device is doing, at one moment.
struct DeviceStatus {
    std::vector<LinkStatus> links; ///< in the order of their coming
    bool fFeeder = false;          ///< paper lies in it
    bool fFax = false;             ///< one waits for upload
    bool fPressWaits = false;      ///< nobody has claimed the last press of the button
    ClientId tokenHolder = 0; ///< whose the last press is, until the client frees it; 0: nobody's
    std::vector<KickStatus> kicks; ///< datagrams that wait for their echo or their turn
    DeviceHabits habits;           ///< how it misbehaves
    DWORD dwCutMs = 0;             ///< clients are turned away for so long yet
};

class CSoftDeviceImpl;

/// A device that runs in this process.
class CSoftDevice {
public:
    /// Keeps the configuration; nothing runs before Start.
    explicit CSoftDevice(SoftDeviceConfig config = {});
    ~CSoftDevice(); ///< stops it
    CSoftDevice(CSoftDevice const &) = delete;
    CSoftDevice &operator=(CSoftDevice const &) = delete;

    /// Begins to listen; once. At that port instead of a 0 in the configuration. False with the reason in one line.
    bool Start(std::string *pstrError, WORD wPort = 0);
    /// Ends every link and thread. Nothing is called or sent after it.
    void Stop();

    WORD Port() const;                      ///< TCP, after Start
    SoftDeviceConfig const &Config() const; ///< what it was made of; any time

    // ---- The front panel

    /// The entries in the order of their coming.
    std::vector<PanelEntry> Panel() const;
    /// Waits until an entry's text holds strPart in any case (any entry for an empty one) and its client
    /// has done with subscribing, so that a pick is heard. False with the reason when the time is up.
    bool WaitForEntry(std::string const &strPart, DWORD dwMilliseconds,
                      std::string *pstrError = nullptr) const;
    /// Whether an entry's text holds strPart in any case.
    bool HasEntry(std::string const &strPart) const;
    /// @{
    /// A user picks an entry: that one, counted from 1 or by its dwId, or the first whose text holds strPart in any case.
    /// False with the reason.
    bool Pick(std::size_t nEntry, std::string *pstrError = nullptr);
    bool PickId(DWORD dwId, std::string *pstrError = nullptr); ///< that one, if it is still there
    bool PickText(std::string const &strPart, std::string *pstrError = nullptr);
    /// @}
    /// @{
    /// Something happens at the device. How many clients have been told, which is those that have
    /// registered for it.
    std::size_t SetFeeder(bool fOn);
    std::size_t PressButton();
    std::size_t AnnounceFax();
    /// @}

    DeviceStatus Status() const; ///< of this moment

    /// Waits until what is on its way has arrived: datagrams are echoed, a press has been claimed and the
    /// token freed, and each client has received all that was sent to it and has hung up, as no link is
    /// served any more from here on. Empty, or what has not arrived within dwMilliseconds, in one line.
    /// Stop is the only call that makes sense after it.
    std::string Finish(DWORD dwMilliseconds);

    // ---- For who answers in its place

    /// @{
    /// Sends so, once. A link of that number that stands no more is passed over.
    void SendFrame(DWORD dwLink, LinkFrame const &frame);
    void SendDatagram(LinkAddress const &to, std::string const &strBytes);
    void DropLink(DWORD dwLink); ///< ends it
    /// @}

    // ---- Misbehaviour

    /// Ends all links and turns clients away for so long.
    void CutLinks(DWORD dwMilliseconds);
    /// Of the next so many datagrams sent, repeated tries included.
    void DropDatagrams(unsigned c);
    void RepeatDatagrams(unsigned c);  ///< they are sent twice
    void ReorderDatagrams(unsigned c); ///< a datagram is overtaken by the next to the same address
    void LoseEchoes(unsigned c);       ///< of the next so many
    void SetDatagramOdds(KickOdds const &odds); ///< the same by chance
    void RefuseClaims(unsigned c);              ///< the next so many claims of the scan token
    void SetLate(DWORD dwMilliseconds);         ///< every answer comes so late; 0 ends it
    void SetMute(bool fMute);                   ///< no request is answered
    void SendGarbage();                         ///< to every link, bytes that are no frame
    void GarbleAnswers(unsigned c); ///< the next so many answers are frames without sense

private:
    std::unique_ptr<CSoftDeviceImpl> m_pImpl;
};
