#pragma once

// Events for pages that watch, each with a number, and kept for a while: who comes back says which one was the
// last, and misses nothing that is still kept.

#include "platform/lock.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

/// One event.
struct WebEvent {
    std::uint64_t qwId = 0; ///< counts up from 1 over all topics
    unsigned nTopic = 0;    ///< what it is about, such as a device's number
    std::string strJson;    ///< one line
};

/// What a reader gets.
struct WebEventBatch {
    std::vector<WebEvent> events; ///< in the order of their numbers
    bool fGap = false;            ///< some that the reader has not seen are not kept any more
    bool fClosed = false;         ///< nothing more will come
};

/// The topics that a reader wants; empty for all.
using WebTopics = std::set<unsigned>;

/// The events themselves. Every function may be called by any thread; the lock is a leaf.
class CWebEvents {
public:
    /// Keeps the last cKeep events of each topic, at least 1.
    explicit CWebEvents(std::size_t cKeep);

    /// Adds an event, one line of JSON. Its number.
    std::uint64_t Add(unsigned nTopic, std::string strJson);

    /// Up to cMost events behind number qwAfter. Waits for the first of them, as long as told at most.
    WebEventBatch Read(WebTopics const &topics, std::uint64_t qwAfter, std::size_t cMost,
                       std::chrono::milliseconds wait) const;

    /// The number behind which the last cMost events of these topics come.
    std::uint64_t Before(WebTopics const &topics, std::size_t cMost) const;

    /// The last number given, 0 for none.
    std::uint64_t Last() const;
    /// A name for this run, so that numbers of another one are told from ours.
    std::string const &Run() const { return m_strRun; }

    /// Ends all waits, for good.
    void Close();

private:
    struct Topic {
        std::deque<WebEvent> events;
        std::uint64_t qwDropped = 0; // the last number that is not kept any more
    };

    WebEventBatch Collect(WebTopics const &topics, std::uint64_t qwAfter, std::size_t cMost) const
        PLAT_REQUIRES(m_mx);
    template <class Fn>
    void ForEach(WebTopics const &topics, Fn fn) const PLAT_REQUIRES(m_mx);

    std::size_t const m_cKeep;
    std::string const m_strRun;
    mutable CPlatMutex m_mx; // a leaf
    mutable std::condition_variable m_cv;
    std::map<unsigned, Topic> m_topics PLAT_GUARDED_BY(m_mx);
    std::uint64_t m_qwLast PLAT_GUARDED_BY(m_mx) = 0;
    bool m_fClosed PLAT_GUARDED_BY(m_mx) = false;
};
