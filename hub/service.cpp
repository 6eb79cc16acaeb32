#include "hub/service.h"

#include <systemd/sd-daemon.h>

void CService::Ready(std::string const &strStatus)
{
    m_strStatus = strStatus;
    (void)sd_notify(0, ("READY=1\nSTATUS=" + strStatus).c_str());
}

// The manager tells our READY from one that was on its way by the time.
void CService::Reloading()
{
    auto const now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    (void)sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count())).c_str());
}

void CService::Stopping()
{
    (void)sd_notify(0, "STOPPING=1\nSTATUS=Ending");
}

void CService::Status(std::string const &strStatus)
{
    if (strStatus != m_strStatus) {
        m_strStatus = strStatus;
        (void)sd_notify(0, ("STATUS=" + strStatus).c_str());
    }
}

void CService::Feed()
{
    (void)sd_notify(0, "WATCHDOG=1");
}

std::optional<std::chrono::milliseconds> CService::FeedPeriod()
{
    std::uint64_t cMicroseconds = 0;
    if (sd_watchdog_enabled(0, &cMicroseconds) <= 0) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(cMicroseconds / 2000);
}
