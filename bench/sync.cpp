// Mutexes, events and threads, each against the pthread calls that one would write in their place.

#include "bench/bench.h"

#include "foundation/g_qthread.h"
#include "platform/sync.h"
#include "platform/thread.h"

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace {

void MutexOurs(benchmark::State &state)
{
    HANDLE const hMutex = CreateMutexA(nullptr, FALSE, nullptr);
    for (auto _ : state) {
        WaitForSingleObject(hMutex, INFINITE);
        ReleaseMutex(hMutex);
    }
    CloseHandle(hMutex);
}

void MutexPthread(benchmark::State &state)
{
    std::recursive_mutex mutex; // a recursive pthread mutex
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
}

class CEventSignal {
public:
    ~CEventSignal() { CloseHandle(m_hEvent); }
    void Set() { SetEvent(m_hEvent); }
    void Wait() { WaitForSingleObject(m_hEvent, INFINITE); }

private:
    HANDLE const m_hEvent =
        CreateEventA(nullptr, /*bManualReset=*/FALSE, /*bInitialState=*/FALSE, nullptr);
};

class CConditionSignal {
public:
    void Set()
    {
        {
            std::lock_guard const lock(m_mutex);
            m_fSet = true;
        }
        m_changed.notify_one();
    }
    void Wait()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_fSet; });
        m_fSet = false;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_fSet = false;
};

// There and back, on one core.
template <class Signal>
void PingPong(benchmark::State &state)
{
    COneCore const core;
    Signal there, back;
    std::atomic<bool> fEnd{false};
    std::thread other([&] {
        for (;;) {
            there.Wait();
            if (fEnd) {
                return;
            }
            back.Set();
        }
    });
    for (auto _ : state) {
        there.Set();
        back.Wait();
    }
    fEnd = true;
    there.Set();
    other.join();
}

void ThreadOurs(benchmark::State &state)
{
    for (auto _ : state) {
        auto const hThread = reinterpret_cast<HANDLE>(_beginthreadex(
            nullptr, 0, [](void *) -> unsigned { return 0; }, nullptr, 0, nullptr));
        WaitForSingleObject(hThread, INFINITE);
        CloseHandle(hThread);
    }
}

// A worker with its queue, locks and events.
void WorkerOurs(benchmark::State &state)
{
    for (auto _ : state) {
        (new CGQThread("worker", eTK_BEGINTHREADEX, -1, -1, 0))->Release();
    }
}

void ThreadPthread(benchmark::State &state)
{
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
    }
}

BENCHMARK(MutexOurs)->Name("mutex/ours");
BENCHMARK(MutexPthread)->Name("mutex/pthread");
BENCHMARK(PingPong<CEventSignal>)->Name("ping-pong/ours")->MeasureProcessCPUTime();
BENCHMARK(PingPong<CConditionSignal>)->Name("ping-pong/condvar")->MeasureProcessCPUTime();
BENCHMARK(ThreadOurs)->Name("thread/ours")->MeasureProcessCPUTime();
BENCHMARK(WorkerOurs)->Name("thread/worker")->MeasureProcessCPUTime();
BENCHMARK(ThreadPthread)->Name("thread/pthread")->MeasureProcessCPUTime();

} // namespace
