// The agent's callback thread, and what one writes by hand: a deque with a mutex and a condition.

#include "bench/post.h"

#include "agent/callback_qthread.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace {

class CAgentQueue {
public:
    ~CAgentQueue() { m_pThread->Release(); }
    void Post(std::string const &strText)
    {
        m_pThread->PostCallback(eCT_SELECT_NOTIFY, &m_agent, 0, 0, strText.c_str(), "127.0.0.1",
                                "localhost");
    }

private:
    CNotifyAgent m_agent{[](CallbackType, CallbackDataType *) -> DWORD {
                             CArrivals::Arrived();
                             return 0;
                         },
                         0};
    CCallbackQThread *const m_pThread =
        new CCallbackQThread(&m_agent, "CCallbackQThread", eTK_BEGINTHREADEX, -1, -1, 0);
};

class CDeque {
public:
    ~CDeque()
    {
        Push(nullptr);
        m_thread.join();
    }
    void Post(std::string const &strText) { Push(std::make_unique<CMessage>(strText)); }

private:
    void Push(std::unique_ptr<CMessage> pMessage)
    {
        {
            std::lock_guard const lock(m_mutex);
            m_messages.push_back(std::move(pMessage));
        }
        m_changed.notify_one();
    }
    std::unique_ptr<CMessage> Pop()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_messages.empty(); });
        std::unique_ptr<CMessage> pMessage = std::move(m_messages.front());
        m_messages.pop_front();
        return pMessage;
    }
    void Run()
    {
        while (std::unique_ptr<CMessage> const pMessage = Pop()) {
            benchmark::DoNotOptimize(pMessage->m_ab);
            CArrivals::Arrived();
        }
    }
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::unique_ptr<CMessage>> m_messages;
    std::thread m_thread{&CDeque::Run, this};
};

[[maybe_unused]] bool const g_fRegistered =
    PostPeer<CAgentQueue>("ours") && PostPeer<CDeque>("deque");

} // namespace
