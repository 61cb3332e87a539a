#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/endsignal.h"
#include "sandbox/site.h"

namespace sandbox {

/// Sends the notifications that are pending in the store, on a thread of its own: those it finds at the start and those
/// that are added later. A merchant who does not answer with a status of 200 to 299 is asked again. Only http addresses
/// on this machine are contacted. Every attempt is recorded; a notification is pending in the store until it is
/// settled.
class Notifier {
public:
    using Clock = EndSignal::Clock;

    /// How long a merchant may take to answer, and how long to wait after each attempt that failed. There is one more
    /// attempt than there are pauses.
    struct Patience {
        std::chrono::milliseconds answer;
        std::vector<std::chrono::milliseconds> pauses;
    };

    /// Borrows `site`. Throws std::runtime_error.
    Notifier(Site const& site, Patience patience);

    /// Stops.
    ~Notifier();
    Notifier(Notifier const&) = delete;
    Notifier& operator=(Notifier const&) = delete;

    /// Begins to send. Throws std::runtime_error.
    void start();

    /// Tells that the store has one more. May be called by any thread at any time.
    void wake();

    /// Cuts what is under way, which stays pending, and returns when the thread has ended.
    void stop();

private:
    /// What is known of a pending notification besides its row.
    struct Plan {
        Clock::time_point due = {};
        std::optional<Fault> delay = {};  ///< Has been waited for; happens to the next attempt.
    };

    void run();
    Clock::time_point sendDue();
    bool send(Notification notification, Plan& plan);
    bool attempt(Notification& notification, Plan& plan, std::string const& query, Exchange& record, bool twice);
    bool settle(Notification& notification, std::string const& outcome);
    void keep(Notification& notification, std::string const& outcome);

    Site const& m_Site;  ///< Borrowed.
    Patience m_Patience;
    EndSignal m_Ending;
    std::thread m_Thread;
    std::map<std::int64_t, Plan> m_Plans;  ///< By number. Used by the thread alone.
    std::mutex m_Mutex;                    ///< Guards all below.
    std::condition_variable m_Changed;
    bool m_Added = false;
    bool m_Stopping = false;
};

}  // namespace sandbox
