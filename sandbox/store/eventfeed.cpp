#include "sandbox/store/eventfeed.h"

#include <utility>

namespace sandbox {

EventFeed::Reader::Reader(EventFeed& feed) : m_Feed(feed) {
    std::lock_guard<std::mutex> const lock(feed.m_Mutex);
    ++feed.m_Readers;
    m_Next = feed.m_First + feed.m_Events.size();
}

EventFeed::Reader::~Reader() {
    std::lock_guard<std::mutex> const lock(m_Feed.m_Mutex);
    if (--m_Feed.m_Readers == 0) {
        m_Feed.m_First += m_Feed.m_Events.size();
        m_Feed.m_Events.clear();
    }
}

std::optional<std::vector<StoreEvent>> EventFeed::Reader::await(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_Feed.m_Mutex);
    m_Feed.m_Added.wait_for(lock, timeout,
                            [this] { return m_Feed.m_Ended || m_Next < m_Feed.m_First + m_Feed.m_Events.size(); });
    if (m_Feed.m_Ended || m_Next < m_Feed.m_First) {
        return std::nullopt;
    }
    auto const from = m_Feed.m_Events.begin() + static_cast<std::ptrdiff_t>(m_Next - m_Feed.m_First);
    std::vector<StoreEvent> found(from, m_Feed.m_Events.end());
    m_Next += found.size();
    return found;
}

void EventFeed::add(StoreEvent event) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Changes += event.m_Exchange ? 0U : 1U;
    if (m_Readers > 0) {
        m_Events.push_back(std::move(event));
    }
    if (m_Events.size() > kMaxKept) {
        m_Events.pop_front();
        ++m_First;
    }
    m_Added.notify_all();
}

void EventFeed::countChange() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    ++m_Changes;
    m_Added.notify_all();
}

std::uint64_t EventFeed::changes() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Changes;
}

bool EventFeed::awaitChange(std::uint64_t seen, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Added.wait_until(lock, deadline, [this, seen] { return m_Ended || m_Changes > seen; });
    return !m_Ended;
}

void EventFeed::end() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Ended = true;
    m_Added.notify_all();
}

}  // namespace sandbox
