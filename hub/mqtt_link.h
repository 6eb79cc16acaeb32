#pragma once
/// @file
/// CMqttLink: a connection to a broker that is kept for good, with a thread of its own. MQTT 3.1.1; the session is
/// kept over breaks, so that what was on its way is sent again by the protocol.
#include "hub/settings.h"
#include "hub/sink.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What is published, or has come.
struct MqttMessage {
    std::string strTopic;
    std::string strPayload;
    bool bRetain = false;
};

/// A message that the broker has to acknowledge, by the name of what it tells of.
struct MqttNamedMessage {
    std::string strId;
    MqttMessage message;
};

/// What the owner hears, all of it on the link's thread and under none of its locks. None may throw or wait.
struct MqttLinkEvents {
    using Clock = std::chrono::steady_clock;
    std::function<void()> connected; ///< now, or once more; nothing has been published yet
    std::function<void(std::string const &)> failed;  ///< a try to connect, or a connection; why
    std::function<void(MqttMessage const &)> message; ///< for one of the subscriptions
    /// After each turn of a connected link; the next comes at the time that is returned, or before it.
    std::function<Clock::time_point()> turn;
};

class CMqttLinkImpl;

/// A lost connection is tried again after 0.5 s, and with pauses that double up to 4 s.
class CMqttLink {
public:
    /// The broker publishes the will when the link breaks without Stop. Throws std::bad_alloc.
    CMqttLink(HubMqttSettings const &settings, std::optional<MqttMessage> will,
              MqttLinkEvents events);
    ~CMqttLink(); ///< Stop, and waits for the thread, a few seconds at most
    CMqttLink(CMqttLink const &) = delete;
    CMqttLink &operator=(CMqttLink const &) = delete;

    /// Begins to connect; once, when the owner is ready for events. Throws std::system_error.
    void Start();

    /// How many messages Send has on their way at once.
    static constexpr std::size_t kWindow = 500;

    /// Publishes up to kWindow messages with QoS 1 and waits for the broker's acknowledgments, the settings' limit
    /// at most for the next one; for a connection, too, unless the broker refuses it. *pcTaken is how many were
    /// acknowledged before the first that was not, of which the result tells. What a call that came back too
    /// early has published is not published again by the next one, if it has the same strId. One thread at a
    /// time.
    HubOutcomeType Send(std::vector<MqttNamedMessage> messages, std::size_t *pcTaken,
                        std::string *pstrWhy);

    /// Publishes with QoS 1 and does not wait; nothing happens while there is no connection. Any thread.
    void Post(MqttMessage message);
    /// From the link's thread, once connected: hears a topic, for as long as the connection lasts.
    void Subscribe(std::string const &strTopic);
    /// Connects anew, with another will. Any thread.
    void SetWill(std::optional<MqttMessage> will);

    /// From any thread: ends every Send. The broker is told a last message, if there is one, and then that
    /// this is a proper end.
    void Stop(std::optional<MqttMessage> last);

private:
    std::unique_ptr<CMqttLinkImpl> const m_pImpl;
};
