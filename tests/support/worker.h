/// A test thread that reports whether it is blocked.
#ifndef TALLOWIN_TESTS_SUPPORT_WORKER_H
#define TALLOWIN_TESTS_SUPPORT_WORKER_H

#include <sys/types.h>

#include <functional>
#include <future>
#include <thread>

namespace kvxtest {

/// Runs a function on its own thread. The destructor aborts the test program when the function does not return in time.
class Worker {
public:
    explicit Worker(std::function<void()> const& function);
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    /// Waits until the function has returned.
    ~Worker();

    /// Waits until the thread is blocked or the function has returned. True when it is blocked; false also on timeout.
    [[nodiscard]] bool blocks();

    /// Waits until the function has returned. False on timeout.
    [[nodiscard]] bool finishes() const;

private:
    [[nodiscard]] bool isBlocked() const;

    std::promise<pid_t> m_Started;
    std::promise<void> m_Done;
    std::shared_future<pid_t> m_Id;
    std::shared_future<void> m_End;
    std::thread m_Thread;
};

}  // namespace kvxtest

#endif
