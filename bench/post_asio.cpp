// asio::post to an io_context with one thread.

#include "bench/post.h"

#include <asio.hpp>
#include <memory>
#include <thread>

namespace {

class CAsioQueue {
public:
    ~CAsioQueue()
    {
        m_work.reset();
        m_thread.join();
    }
    void Post(std::string const &strText)
    {
        asio::post(m_context, [pMessage = std::make_unique<CMessage>(strText)] {
            benchmark::DoNotOptimize(pMessage->m_ab);
            CArrivals::Arrived();
        });
    }

private:
    asio::io_context m_context;
    asio::executor_work_guard<asio::io_context::executor_type> m_work =
        asio::make_work_guard(m_context);
    std::thread m_thread{[this] { m_context.run(); }};
};

[[maybe_unused]] bool const g_fRegistered = PostPeer<CAsioQueue>("asio");

} // namespace
