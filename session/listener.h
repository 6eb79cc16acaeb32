#pragma once

// Whether an agent's datagram listener still listens, asked from outside: the agent tells nobody when it
// has ended.

#include "agent/QOMANoAg.h"
#include "devlink/link_stream.h"

#include <chrono>
#include <string>

/// The "a.b.c.d:port" (or, over a local link, the text) that the agent tells the device, read out of a
/// discovery job that it writes into a temporary file. Port 0: the listener has ended. Empty when there
/// is no such file to be had or the agent is not connected. The device notices nothing. Takes the agent's
/// lock, and so may wait for another of its operations.
std::string AdvertisedAddress(CNotifyAgent &agent);

/// Sends strText to an agent's UDP port, and waits for its echo. The agent notifies its client of the text
/// unless its filter holds it back; with "KICKSEQ=0;" in it, the filter stays as it is.
bool EchoComes(LinkAddress const &address, std::string const &strText,
               std::chrono::milliseconds limit);
