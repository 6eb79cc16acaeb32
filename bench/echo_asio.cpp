// asio's asynchronous echo, which neither reads the text nor tells anybody.

#include "bench/echo.h"

#include <asio.hpp>
#include <thread>

namespace {

using asio::ip::udp;

class CAsioServer {
public:
    CAsioServer() : m_socket(m_context, udp::endpoint(asio::ip::address_v4::loopback(), 0))
    {
        Receive();
        m_thread = std::thread([this] { m_context.run(); });
    }
    ~CAsioServer()
    {
        m_context.stop();
        m_thread.join();
    }
    std::uint16_t Port() { return m_socket.local_endpoint().port(); }

private:
    void Receive()
    {
        m_socket.async_receive_from(asio::buffer(m_ab), m_from, [this](auto error, std::size_t cb) {
            if (!error) {
                m_socket.async_send_to(asio::buffer(m_ab, cb), m_from,
                                       [this](auto, std::size_t) { Receive(); });
            }
        });
    }
    asio::io_context m_context{1};
    udp::socket m_socket;
    udp::endpoint m_from;
    char m_ab[350];
    std::thread m_thread;
};

[[maybe_unused]] bool const g_fRegistered = EchoPeer<CAsioServer>("asio");

} // namespace
