#pragma once
/// @file
/// CWebhookSink: a POST for each event, in CloudEvents' HTTP binding, structured mode: the body is the envelope,
/// announced as application/cloudevents+json.
#include "hub/settings.h"
#include "hub/sink.h"

#include <memory>

class CWebhookSinkImpl;

/// The server has taken an event when it answers 2xx. It is asked again later after 408, 425, 429, 5xx, a
/// redirection (which is not followed: the event would go to somebody the settings do not name) and whatever
/// keeps the answer from coming; any other answer is a refusal. A Retry-After of 429 and 503 is honoured up to
/// ten minutes: until then Deliver asks nobody. One connection is kept open from event to event.
class CWebhookSink final : public CHubSink {
public:
    /// Throws std::bad_alloc.
    explicit CWebhookSink(HubWebhookSettings const &settings);
    ~CWebhookSink() override;

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override;
    void Stop() override;

private:
    std::unique_ptr<CWebhookSinkImpl> const m_pImpl;
};
