#pragma once
/// @file
/// CService: what a service tells the manager that has started it, in the manager's own protocol. Without a manager
/// every call does nothing. One thread.
#include <chrono>
#include <optional>
#include <string>

class CService {
public:
    void Ready(std::string const &strStatus);  ///< it works, or has read its settings again
    void Reloading();                          ///< it reads its settings again
    void Stopping();                           ///< it ends
    void Status(std::string const &strStatus); ///< one line for people; sent when it has changed
    void Feed();                               ///< it lives

    /// How often Feed is to be called; nothing if nobody waits for that.
    static std::optional<std::chrono::milliseconds> FeedPeriod();

private:
    std::string m_strStatus;
};
