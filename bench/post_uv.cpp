// libuv: a list under a mutex, and uv_async_send to wake the loop, as its manual advises.

#include "bench/post.h"

#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <uv.h>

namespace {

class CUvQueue {
public:
    CUvQueue()
    {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_async, OnAsync);
        m_async.data = this;
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    ~CUvQueue()
    {
        Push(nullptr);
        m_thread.join();
        uv_loop_close(&m_loop);
    }
    void Post(std::string const &strText) { Push(std::make_unique<CMessage>(strText)); }

private:
    void Push(std::unique_ptr<CMessage> pMessage)
    {
        {
            std::lock_guard const lock(m_mutex);
            m_messages.push_back(std::move(pMessage));
        }
        uv_async_send(&m_async);
    }
    static void OnAsync(uv_async_t *pAsync)
    {
        auto &self = *static_cast<CUvQueue *>(pAsync->data);
        std::deque<std::unique_ptr<CMessage>> messages;
        {
            std::lock_guard const lock(self.m_mutex);
            messages.swap(self.m_messages);
        }
        for (auto const &pMessage : messages) {
            if (!pMessage) {
                return uv_close(reinterpret_cast<uv_handle_t *>(pAsync), nullptr);
            }
            benchmark::DoNotOptimize(pMessage->m_ab);
            CArrivals::Arrived();
        }
    }
    uv_loop_t m_loop;
    uv_async_t m_async;
    std::mutex m_mutex;
    std::deque<std::unique_ptr<CMessage>> m_messages;
    std::thread m_thread;
};

[[maybe_unused]] bool const g_fRegistered = PostPeer<CUvQueue>("uv");

} // namespace
