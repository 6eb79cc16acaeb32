// A datagram in, its echo out: an agent that is connected to a device, and a bare loop.

#include "bench/echo.h"

#include "agent/QOMANoAg.h"
#include "device/soft_device.h"

#include <atomic>
#include <thread>

// The way to the agent's port, which it tells to devices only.
struct CNotifyAgentProbe {
    static std::uint16_t Port(CNotifyAgent &agent) { return agent.m_wPort; }
};

namespace {

class CAgentServer {
public:
    CAgentServer()
    {
        std::string strError;
        if (!m_device.Start(&strError) ||
            m_agent.Init("127.0.0.1", m_device.Port(), /*bNetwork=*/1) != 0) {
            throw std::runtime_error("no agent: " + strError);
        }
    }
    ~CAgentServer() { m_agent.Shutdown(); }
    std::uint16_t Port() { return CNotifyAgentProbe::Port(m_agent); }

private:
    CSoftDevice m_device;
    CNotifyAgent m_agent{[](CallbackType, CallbackDataType *) -> DWORD { return 0; }, 0};
};

class CBareServer {
public:
    ~CBareServer()
    {
        m_fEnd = true;
        CEchoDevice(Port()).Send();
        m_thread.join();
    }
    std::uint16_t Port() { return m_socket.Port(); }

private:
    void Run()
    {
        while (!m_fEnd) {
            char ab[350];
            sockaddr_in from;
            socklen_t cbFrom = sizeof from;
            auto *const pFrom = reinterpret_cast<sockaddr *>(&from);
            ssize_t const cb = recvfrom(m_socket.Fd(), ab, sizeof ab - 1, 0, pFrom, &cbFrom);
            if (cb > 0) {
                sendto(m_socket.Fd(), ab, static_cast<std::size_t>(cb), 0, pFrom, cbFrom);
            }
        }
    }
    CUdpSocket m_socket;
    std::atomic<bool> m_fEnd{false};
    std::thread m_thread{&CBareServer::Run, this};
};

[[maybe_unused]] bool const g_fRegistered =
    EchoPeer<CAgentServer>("ours") && EchoPeer<CBareServer>("bare");

} // namespace
