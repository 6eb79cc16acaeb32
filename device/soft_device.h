#pragma once
/*
 * CSoftDevice: a multifunction peripheral in software.
 *
 * Clients reach it by the device link (docs/device-link.md). It has the eight objects, a panel whose
 * entries clients write, trap registrations per client, the scan token that one client at a time can
 * hold, datagrams that it sends until their echo comes, and a print path that answers discovery jobs.
 * What a person does at its front panel are calls here, and so is its misbehaviour.
 *
 * mfpsim runs one as a process, tests run it inside theirs. Every function may be called by any thread
 * between Start and Stop, but not from the log function.
 *
 * A link's panel entries, registrations and token end with the link, over a network as well: a client
 * that comes back writes them anew, with new numbers, and the old ones would only pile up.
 */
#include "device/device_model.h"
#include "device/kick_sender.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

// What the device is to be.
struct SoftDeviceConfig {
    std::string strModel = "VELLUMAX 4000"; // of the identification text
    std::string strListen = "127.0.0.1";    // dotted address to listen at
    WORD wPort = 0;                         // TCP, 0 for any that is free
    std::string strPrintPath;               // empty for none
    DWORD dwKickIntervalMs = 500;           // between two tries of one datagram
    DWORD cKickTries = 10;                  // of one datagram, the first one included
    // Gets one line, without a line end, for everything that happens. Called under the device's lock.
    std::function<void(std::string const &)> log;
};

class CSoftDeviceImpl;

class CSoftDevice {
public:
    // Keeps the configuration; nothing runs before Start.
    explicit CSoftDevice(SoftDeviceConfig config = {});
    ~CSoftDevice(); // stops it
    CSoftDevice(CSoftDevice const &) = delete;
    CSoftDevice &operator=(CSoftDevice const &) = delete;

    // Begins to listen; once. False with the reason in one line.
    bool Start(std::string *pstrError);
    // Ends every link and thread. Nothing is called or sent after it.
    void Stop();

    WORD Port() const; // TCP, after Start

    // ---- The front panel

    // The entries in the order of their coming.
    std::vector<PanelEntry> Panel() const;
    // Waits until an entry's text holds strPart (any entry for an empty one). False when the time is up.
    bool WaitForEntry(std::string const &strPart, DWORD dwMilliseconds) const;
    // A user picks an entry, counted from 1. False if there is none.
    bool Pick(size_t nEntry);
    void SetFeeder(bool fOn);
    void PressButton();
    void AnnounceFax();

    // ---- Misbehaviour

    // Ends all links and turns clients away for so long.
    void CutLinks(DWORD dwMilliseconds);
    // Of the next so many datagrams sent, repeated tries included.
    void DropDatagrams(unsigned c);
    void RepeatDatagrams(unsigned c);
    void ReorderDatagrams(unsigned c); // a datagram is overtaken by the next to the same address
    void LoseEchoes(unsigned c);       // of the next so many
    void SetDatagramOdds(KickOdds const &odds);
    void RefuseClaims(unsigned c);      // the next so many claims of the scan token
    void SetLate(DWORD dwMilliseconds); // every answer comes so late; 0 ends it
    void SetMute(bool fMute);           // no request is answered
    void SendGarbage();                 // to every link, bytes that are no frame
    void GarbleAnswers(unsigned c);     // the next so many answers are frames without sense

private:
    std::unique_ptr<CSoftDeviceImpl> m_pImpl;
};
