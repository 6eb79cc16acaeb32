#pragma once
/// @file
/// What the software device is, without its connections: the values of its objects, the entries on
/// its panel, and who has the scan token. Every change that registered clients have to hear of is
/// handed out as an ObjectChange. No lock, no thread: CSoftDevice calls it under its own.
#include "device/device_objects.h"

#include <array>
#include <string>
#include <vector>

/// A client is known by the number of its link, which never comes again; 0 is none.
using ClientId = DWORD;

/// An entry on the panel.
struct PanelEntry {
    std::string strText;   ///< the option text as the client wrote it
    ClientId owner = 0;    ///< the client that placed it
    bool fNetwork = false; ///< its owner's link is one over a network
    DWORD dwId =
        0; ///< counts up over the whole device, so that a pick meets the entry that was seen
};

/// An object's new value, for clients that registered for it.
struct ObjectChange {
    int nRow = 0;    ///< a DeviceRow
    LinkBytes value; ///< as it goes over the wire
};
/// In the order in which they came about.
using ObjectChanges = std::vector<ObjectChange>;

/// The scanner button's press and the token that goes with it.
///
/// Every client that watches the button hears of a press, and all of them try to claim it. A press can
/// be claimed once: the claim uses it up, so that a client which comes after the winner has freed the
/// token is refused as well. A new press replaces one that nobody has claimed. There is no claim
/// without a press.
class CScanToken {
public:
    /// The button is pressed: there is a press to claim.
    void Press() { m_fPressWaits = true; }
    /// Gives the press and the token to the client. False if there is no press or another one holds it.
    bool Claim(ClientId client);
    bool Free(ClientId client); ///< false if it holds nothing
    /// Who has the token, 0 for nobody.
    ClientId Holder() const { return m_holder; }
    bool IsPressed() const { return m_fPressWaits; } ///< there is a press to claim

private:
    bool m_fPressWaits = false;
    ClientId m_holder = 0;
};

/// The whole of the device's state, see above.
class CDeviceModel {
public:
    /// As it is when it is switched on.
    explicit CDeviceModel(std::string const &strSerial = "VX4-000001");

    /// A client reads: eLR_OK with the value as it goes over the wire, or why not.
    DWORD Get(int nRow, BYTE dataType, LinkBytes *pValue) const;
    /// An object's value, as it goes over the wire.
    LinkBytes const &Value(int nRow) const;
    /// A client writes. eLR_OK, or why not; then nothing has changed.
    DWORD Set(ClientId client, bool fNetwork, int nRow, BYTE dataType, LinkBytes const &value,
              ObjectChanges *pChanges);
    /// A link has ended: its entries leave the panel and its token is free.
    std::vector<PanelEntry> ClientGone(ClientId client, ObjectChanges *pChanges);

    /// @{
    /// What is on the panel, in the order of coming, who has the token (0: nobody), and whether a press of
    /// the button waits to be claimed.
    std::vector<PanelEntry> const &Panel() const { return m_panel; }
    ClientId TokenHolder() const { return m_token.Holder(); }
    bool IsPressed() const { return m_token.IsPressed(); }
    /// @}

    /// @{
    /// The front panel. Each of these is a change, also when the value stays what it was.
    ObjectChange PressButton();
    ObjectChange SetFeeder(bool fOn);
    ObjectChange AnnounceFax();
    ObjectChange Select(std::string const &strText);
    /// @}

    /// Misbehaviour: the next c claims of the token are refused.
    void RefuseClaims(unsigned c) { m_cRefuseClaims = c; }
    unsigned ClaimsToRefuse() const { return m_cRefuseClaims; } ///< of them, still

private:
    DWORD AddEntry(ClientId client, bool fNetwork, std::string const &strText);
    DWORD DeleteEntry(ClientId client, std::string const &strText);
    DWORD SetToken(ClientId client, LinkBytes const &value);
    ObjectChange Store(int nRow, LinkBytes value);

    std::array<LinkBytes, eDO_COUNT> m_values; // as they go over the wire
    DWORD m_dwLastEntry = 0;
    std::vector<PanelEntry> m_panel; // in the order of their coming
    CScanToken m_token;
    unsigned m_cRefuseClaims = 0;
};
