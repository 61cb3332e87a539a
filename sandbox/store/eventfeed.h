#ifndef TALLOWIN_SANDBOX_STORE_EVENTFEED_H
#define TALLOWIN_SANDBOX_STORE_EVENTFEED_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/store/rows.h"

namespace sandbox {

/// Something that was stored: exactly one member has a value.
struct StoreEvent {
    /// A payment that is in another state, or was opened.
    struct Move {
        std::string m_Payment;  ///< Identifier.
        HistoryEntry m_Step;
    };

    std::optional<Move> m_Move = {};
    std::optional<ExchangeSummary> m_Exchange = {};
    std::optional<Notification> m_Notification = {};
};

/// Passes on what is stored, in its order, to readers that wait for it. The latest kMaxKept events are kept, as long as
/// there are readers. May be used by any thread.
class EventFeed {
public:
    static constexpr std::size_t kMaxKept = 4096;

    /// One who reads all events that are added during its life.
    class Reader {
    public:
        /// Borrows `feed`.
        explicit Reader(EventFeed& feed);
        ~Reader();
        Reader(Reader const&) = delete;
        Reader& operator=(Reader const&) = delete;

        /// The next events; none when none comes within `timeout`. Nothing when there will be none: the feed has ended,
        /// or more came since the last call than are kept.
        std::optional<std::vector<StoreEvent>> await(std::chrono::milliseconds timeout);

    private:
        EventFeed& m_Feed;
        std::uint64_t m_Next;  ///< Number of the event that it reads next.
    };

    /// What is added while nobody reads is lost. Counts as a change unless it is an exchange.
    void add(StoreEvent event);

    /// Counts a change that is no event.
    void countChange();

    /// The changes of payments and notifications since the start.
    [[nodiscard]] std::uint64_t changes();

    /// Returns once there were more changes than `seen`, at `deadline`, or when end() was called: false then, for good.
    bool awaitChange(std::uint64_t seen, std::chrono::steady_clock::time_point deadline);

    /// Ends all waits, for good.
    void end();

private:
    std::mutex m_Mutex;               ///< Guards all below.
    std::condition_variable m_Added;  ///< An event, or a change.
    std::deque<StoreEvent> m_Events;
    std::uint64_t m_First = 0;  ///< Number of the first one in m_Events.
    std::size_t m_Readers = 0;
    std::uint64_t m_Changes = 0;
    bool m_Ended = false;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_EVENTFEED_H
