#include "web/web_events.h"

#include <algorithm>
#include <random>

namespace {

std::string MakeRun()
{
    static char const s_szDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::random_device random;
    std::string str;
    for (int i = 0; i < 8; ++i) {
        str += s_szDigits[random() % (sizeof s_szDigits - 1)];
    }
    return str;
}

} // namespace

CWebEvents::CWebEvents(std::size_t cKeep)
    : m_cKeep(std::max<std::size_t>(cKeep, 1)), m_strRun(MakeRun())
{
}

std::uint64_t CWebEvents::Add(unsigned nTopic, std::string strJson)
{
    CPlatGuard const lock(m_mx);
    Topic &topic = m_topics[nTopic];
    topic.events.push_back({++m_qwLast, nTopic, std::move(strJson)});
    if (topic.events.size() > m_cKeep) {
        topic.qwDropped = topic.events.front().qwId;
        topic.events.pop_front();
    }
    m_cv.notify_all();
    return m_qwLast;
}

template <class Fn>
void CWebEvents::ForEach(WebTopics const &topics, Fn fn) const
{
    if (topics.empty()) {
        for (auto const &[nTopic, topic] : m_topics) {
            fn(topic);
        }
        return;
    }
    for (unsigned const nTopic : topics) {
        if (auto const it = m_topics.find(nTopic); it != m_topics.end()) {
            fn(it->second);
        }
    }
}

WebEventBatch CWebEvents::Collect(WebTopics const &topics, std::uint64_t qwAfter,
                                  std::size_t cMost) const
{
    WebEventBatch batch;
    ForEach(topics, [&](Topic const &topic) {
        batch.fGap = batch.fGap || topic.qwDropped > qwAfter;
        auto it = std::upper_bound(
            topic.events.begin(), topic.events.end(), qwAfter,
            [](std::uint64_t qw, WebEvent const &event) { return qw < event.qwId; });
        for (std::size_t c = 0; c < cMost && it != topic.events.end(); ++c, ++it) {
            batch.events.push_back(*it);
        }
    });
    std::sort(batch.events.begin(), batch.events.end(),
              [](WebEvent const &a, WebEvent const &b) { return a.qwId < b.qwId; });
    if (batch.events.size() > cMost) {
        batch.events.resize(cMost);
    }
    batch.fClosed = m_fClosed;
    return batch;
}

WebEventBatch CWebEvents::Read(WebTopics const &topics, std::uint64_t qwAfter, std::size_t cMost,
                               std::chrono::milliseconds wait) const
{
    auto const deadline = std::chrono::steady_clock::now() + wait;
    CPlatWaitGuard lock(m_mx);
    for (;;) {
        WebEventBatch batch = Collect(topics, qwAfter, cMost);
        if (!batch.events.empty() || batch.fClosed) {
            return batch;
        }
        if (m_cv.wait_until(lock.Native(), deadline) == std::cv_status::timeout) {
            return Collect(topics, qwAfter, cMost);
        }
    }
}

std::uint64_t CWebEvents::Before(WebTopics const &topics, std::size_t cMost) const
{
    CPlatGuard const lock(m_mx);
    std::vector<std::uint64_t> ids;
    ForEach(topics, [&](Topic const &topic) {
        for (std::size_t c = 0; c < cMost && c < topic.events.size(); ++c) {
            ids.push_back(topic.events[topic.events.size() - 1 - c].qwId);
        }
    });
    if (ids.empty()) {
        return m_qwLast;
    }
    std::size_t const nFirst = std::min(cMost, ids.size());
    std::nth_element(ids.begin(), ids.begin() + static_cast<std::ptrdiff_t>(nFirst - 1), ids.end(),
                     std::greater<>());
    return ids[nFirst - 1] - 1;
}

std::uint64_t CWebEvents::Last() const
{
    CPlatGuard const lock(m_mx);
    return m_qwLast;
}

void CWebEvents::Close()
{
    CPlatGuard const lock(m_mx);
    m_fClosed = true;
    m_cv.notify_all();
}
