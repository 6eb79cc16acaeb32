#pragma once
/// @file
/// The settings of a hub: what it hears, where it keeps that, and to whom it hands it. Read whole or refused, so
/// that nobody ever runs with half of what was meant (docs/hub.md lists the fields).
#include "session/session.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// A line on the standard output for each event.
struct HubPrintSettings {
    bool bJson = false; ///< the envelope instead of a line for people
    bool operator==(HubPrintSettings const &) const = default;
};

/// A program that is started for each event, with the envelope on its standard input.
struct HubExecSettings {
    std::vector<std::string> rgstrArgument; ///< the program and its arguments; no shell sees them
    std::chrono::milliseconds limit{10000}; ///< then its process group is ended
    bool operator==(HubExecSettings const &) const = default;
};

/// A POST for each event, in CloudEvents' HTTP binding, structured mode.
struct HubWebhookSettings {
    std::string strUrl;    ///< https:// or http://
    std::string strCaFile; ///< PEM; what the server's certificate is checked against; empty for the
                           ///< system's
    std::vector<std::string>
        rgstrHeader; ///< more header lines, "Name: value"; secrets, never shown
    std::chrono::milliseconds limit{10000}; ///< for one request as a whole
    bool operator==(HubWebhookSettings const &) const = default;
};

/// A client of an MQTT broker.
struct HubMqttSettings {
    std::string strHost;     ///< address or host name
    std::uint16_t wPort = 0; ///< TCP; complete: 1883, or 8883 with TLS, if the file has none
    bool bTls = false;
    /// PEM files; each may be empty, key and certificate only together.
    /// @{
    std::string strCaFile;
    std::string strCertFile;
    std::string strKeyFile;
    /// @}
    std::string strUser;          ///< empty for none
    std::string strPassword;      ///< a secret, never shown
    std::string strBase = "qoma"; ///< topics are BASE/SITE/DEVICE/TYPE
    std::string strSite;          ///< as the hub's
    std::string strHub;           ///< as the hub's name: of two at one site each has its own
    bool bHomeAssistant = false;  ///< announce the devices as Home Assistant wants it
    std::string strHomeAssistantBase = "homeassistant"; ///< where it looks for them
    bool bStandby = false; ///< hear devices only while no other hub of the site does
    std::chrono::milliseconds limit{10000}; ///< for the broker's answer to one event
    bool operator==(HubMqttSettings const &) const = default;
};

/// Bubbles on the desktop of the user whose session bus this is.
struct HubDesktopSettings {
    std::string strBus;                    ///< the bus's address; empty for the session's own
    std::chrono::milliseconds limit{5000}; ///< for the server's answer
    bool operator==(HubDesktopSettings const &) const = default;
};

/// What all sinks have, and what makes one of its kind.
struct HubSinkSettings {
    std::string strName; ///< letters, digits, "-", "_" and "."; no two are the same
    std::chrono::milliseconds firstPause{1000};    ///< before the second try of an event
    std::chrono::milliseconds longestPause{60000}; ///< each pause doubles, up to this
    std::chrono::seconds giveUp{3 * 24 * 60 * 60}; ///< an event this old is not tried again
    std::variant<HubPrintSettings, HubExecSettings, HubWebhookSettings, HubMqttSettings,
                 HubDesktopSettings>
        kind;
    bool operator==(HubSinkSettings const &) const = default;
};

/// An event that fits all of it goes to the sinks. Patterns know "*" (any text) and "?" (any character); an empty
/// list fits everything.
struct HubRule {
    std::vector<std::string> rgstrDevice; ///< patterns of devices' names
    std::vector<std::string> rgstrType;   ///< patterns of types, without the prefix: "panel.picked"
    std::vector<std::string> rgstrText;   ///< patterns of the panel entry's text
    std::vector<std::string> rgstrSink;   ///< names of sinks, one or more
    bool operator==(HubRule const &) const = default;
};

/// Where events are kept, and for how long.
struct HubJournalSettings {
    std::string strFile;                          ///< the database, with its folder
    std::chrono::seconds keep{30 * 24 * 60 * 60}; ///< what is older goes
    std::uint64_t cbKeep = 1024u * 1024 * 1024;   ///< when it takes more bytes, the oldest go
    std::size_t cWaiting = 10000; ///< so many events wait in memory while the disk takes none
    bool operator==(HubJournalSettings const &) const = default;
};

/// Where a server of ours listens.
struct HubListenSettings {
    std::string strAddress = "127.0.0.1"; ///< dotted address
    std::uint16_t wPort = 0;              ///< TCP, 0 for any that is free
    bool operator==(HubListenSettings const &) const = default;
};

/// All of it.
struct HubSettings {
    std::string strSite = "office"; ///< letters, digits, "-", "_" and "."
    std::string strHub; ///< this hub's name at the site; the host's, if nothing else is said
    HubJournalSettings journal;
    std::optional<HubListenSettings> metrics; ///< /metrics and /healthz
    std::optional<HubListenSettings> web;     ///< pages
    std::vector<SessionOptions> devices;      ///< one or more, complete; no two names the same
    std::vector<HubSinkSettings> sinks;
    std::vector<HubRule> rules; ///< none: every event goes to every sink
};

/// The settings of a hub that was told nothing: it hears the device at this machine, keeps its journal in the
/// user's state folder, and prints.
HubSettings DefaultHubSettings();

/// Reads the file. Nothing, with one line "FILE:LINE: what is wrong" in *pstrError, if anything in it or in a file
/// of a secret cannot be what was meant. File names in it that are relative are looked for below
/// $CREDENTIALS_DIRECTORY first, if there is one, then beside the file.
std::optional<HubSettings> ReadHubSettings(std::string const &strFile, std::string *pstrError);

/// Whether the text fits a rule's pattern, whole.
bool FitsPattern(std::string_view strPattern, std::string_view strText);

/// Whether the rules send an event with this device, this type (without the prefix) and this entry text to the
/// sink.
bool IsForSink(std::vector<HubRule> const &rules, std::string const &strSink,
               std::string_view strDevice, std::string_view strType, std::string_view strText);
