#ifndef TALLOWIN_SANDBOX_SERVICE_NOTIFIER_H
#define TALLOWIN_SANDBOX_SERVICE_NOTIFIER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/http/endsignal.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// Sends the notifications that are pending in the store, on threads of its own: those it finds at the start and those
/// that are added later. Without a status of 200 to 299 the notification is retried. Only http addresses
/// on this machine are contacted. Every attempt is stored as an exchange; a notification is pending in the store until
/// it is settled.
///
/// Notifications to one host and port are sent one after the other, the oldest of each payment first. Notifications to
/// other hosts and ports do not wait for them as long as one of the kWorkers threads is free.
///
/// It also expires undecided payments when their time has passed, and makes other moves of payments that are due.
class Notifier {
public:
    using Clock = EndSignal::Clock;

    /// How many merchants are notified in parallel.
    static constexpr std::size_t kWorkers = 8;

    /// How long things may take.
    struct Timeouts {
        std::chrono::milliseconds m_Response;  ///< For a merchant's response.
        std::vector<std::chrono::milliseconds>
            m_Backoff;                              ///< After each attempt that failed. There is one attempt more.
        std::chrono::milliseconds m_ClockInterval;  ///< Between two looks at the service clock.
    };

    /// Borrows `services`. Throws std::runtime_error.
    Notifier(Services const& services, Timeouts timeouts);

    /// Stops.
    ~Notifier();
    Notifier(Notifier const&) = delete;
    Notifier& operator=(Notifier const&) = delete;

    /// Starts to send, and to expire payments. Throws std::runtime_error.
    void start();

    /// To be called when a notification was added to the store or the service clock was set. Any thread, any time.
    void wake();

    /// To be called when the content of the store was replaced: forgets all notifications but those in progress, and
    /// goes on with those of the store. Any thread, any time.
    void reload();

    /// Cuts requests in progress, whose notifications stay pending, and returns when the threads have ended.
    void stop();

private:
    /// A notification that is not yet delivered or given up.
    struct Pending {
        Notification m_Notification = {};
        Clock::time_point m_Due = {};
        std::optional<Fault> m_Delay = {};  ///< Its pause is over; applies to the next attempt.
    };

    /// One that is sent next.
    struct Job {
        std::string m_HostPort;  ///< Of its address.
        Pending m_Pending;
    };

    void wakeLocked();
    void run();
    Clock::time_point poll();
    void loadNew();
    void runWorker();
    std::optional<Job> takeDue(Clock::time_point& next);
    bool sendOnce(Pending& pending);
    bool send(Pending& pending);
    bool tryOnce(Pending& pending, std::string const& query, Exchange& exchange, bool twice);
    bool settle(Notification& notification, std::string const& outcome);
    void storeOutcome(Notification& notification, std::string const& outcome);

    Services const& m_Services;  ///< Borrowed.
    Timeouts m_Timeouts;
    EndSignal m_Ending;
    std::vector<std::thread> m_Threads;
    std::int64_t m_LastTaken = 0;  ///< Number of the newest notification taken from the store. Used by run() alone.

    std::mutex m_Mutex;                 ///< Guards all below. No service but the clock is called under it.
    std::condition_variable m_Changed;  ///< For run().
    std::condition_variable m_Queued;   ///< For one worker, which looks at what is waiting and at m_Busy again.
    std::map<std::string, std::map<std::int64_t, Pending>>
        m_Waiting;                 ///< By "host:port" and number, without those that are being sent.
    std::set<std::string> m_Busy;  ///< The "host:port" to which one is being sent.

    bool m_Reloading = false;  ///< All notifications are taken from the store again.
    bool m_Woken = false;
    bool m_Stopping = false;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_NOTIFIER_H
