#pragma once
/// @file
/// What the scenarios share. A scenario is a function that runs in process 0 of a new world and returns when it
/// has come to its end and everything was as it should be; other roles run in the processes that it begins.

#include "sim/sim.h"

#include <cstdint>

/// @{
/// The roles, by name in roles.cpp.
void QueueScenario(int nArgument);
void AgentsScenario(int nArgument);
void NamedScenario(int nArgument);
void LogScenario(int nArgument);
void NamerRole(int nArgument);
void LoggerRole(int nArgument);
void DeviceRole(int nDevice);
void ClientRole(int nMask);
/// @}

/// At the end of its scope this process holds no more of the system, of the layer's handles and of the foundation's
/// counters than at its beginning.
class CNothingLeft {
public:
    CNothingLeft();
    ~CNothingLeft();
    CNothingLeft(CNothingLeft const &) = delete;
    CNothingLeft &operator=(CNothingLeft const &) = delete;

private:
    SimHoldings const m_held;
    std::uint32_t const m_cHandles;
    std::uint32_t const m_cSockets;
};

/// Lets time pass, up to so many milliseconds.
void Rest(std::uint32_t dwMostMs);
