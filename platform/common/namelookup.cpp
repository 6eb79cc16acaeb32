#include "platform/common/namelookup.h"

#include "platform/thread.h"

#include <new>

CNameLookup::CNameLookup(ResolveFn fnResolve, int nLate) : m_fnResolve(fnResolve), m_nLate(nLate) {}

CNameCache::CAnswer CNameLookup::Find(std::uint32_t dwAddress)
{
    CState &state = *m_pState;
    CNameCache::CAnswer const late{{}, m_nLate};
    CPlatWaitGuard lock(state.mutex);
    auto const now = std::chrono::steady_clock::now();
    if (auto const *pAnswer = state.cache.Find(dwAddress, now)) {
        return *pAnswer;
    }
    auto itRunning = state.running.find(dwAddress);
    if (itRunning == state.running.end()) {
        if (state.running.size() == kMostAtOnce) {
            return late;
        }
        auto const patience = state.running.empty() ? kPatience : kLittlePatience;
        itRunning = state.running.emplace(dwAddress, now + patience).first;
        if (!Start(dwAddress)) {
            state.running.erase(itRunning);
            return late;
        }
    }
    auto const deadline = itRunning->second;
    auto eStatus = std::cv_status::no_timeout;
    while (state.running.contains(dwAddress) && eStatus == std::cv_status::no_timeout) {
        eStatus = state.cvEnded.wait_until(lock.Native(), deadline);
    }
    auto const *const pAnswer = state.cache.Find(dwAddress, std::chrono::steady_clock::now());
    return pAnswer != nullptr ? *pAnswer : late;
}

bool CNameLookup::Start(std::uint32_t dwAddress)
{
    return PlatRunDetached([pState = m_pState, fnResolve = m_fnResolve, dwAddress] {
        Run(*pState, fnResolve, dwAddress);
    });
}

void CNameLookup::Run(CState &state, ResolveFn fnResolve, std::uint32_t dwAddress)
{
    CNameCache::CAnswer answer;
    bool bAnswered = false;
    try {
        answer = fnResolve(dwAddress);
        bAnswered = true;
    } catch (std::bad_alloc const &) {
        // No answer: the next who asks may have more luck.
    }
    CPlatGuard const lock(state.mutex);
    if (bAnswered) {
        state.cache.Store(dwAddress, std::move(answer), std::chrono::steady_clock::now());
    }
    state.running.erase(dwAddress);
    state.cvEnded.notify_all();
}
